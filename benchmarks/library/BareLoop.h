// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LIBRARY_BARELOOP_H
#define TALLYRA_BENCHMARKS_LIBRARY_BARELOOP_H

#include "Wire.h"

#include <string>
#include <vector>

/// What delivering takes without a library around it: a connection of libdbus that sends the bytes
/// which the library sends, in full batches, and waits for each reply. It has the bytes at hand and
/// appends them to each message without another copy.
///
/// Threads: one.
class CBareLoop {
  public:
    /// Connects to the system bus.
    /// @throws std::runtime_error  when it cannot
    CBareLoop();
    ~CBareLoop();
    CBareLoop(const CBareLoop&) = delete;
    CBareLoop& operator=(const CBareLoop&) = delete;

    /// Asks the bus whether there is the service.
    /// @throws std::runtime_error  when there is none
    void FindService();
    /// Calls a function of the service that takes one text.
    /// @throws std::runtime_error  without an answer
    void Ask(const char* pFunction, const char* pText);
    /// @throws std::runtime_error  when a batch is not accepted
    void Send(int records);

  private:
    MessagePtr MakeBatch(int records) const;
    void Call(const MessagePtr& call);

    DBusConnection* m_pConnection;
    const std::vector<char> m_Image;
};

#endif  // TALLYRA_BENCHMARKS_LIBRARY_BARELOOP_H
