// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_PEERS_BARELOOP_H
#define TALLYRA_BENCHMARKS_PEERS_BARELOOP_H

#include "Wire.h"

#include <string>
#include <vector>

/// Delivers records with libdbus alone: sends the bytes that the library sends, in full batches,
/// and waits for each reply. It appends a prepared image without another copy.
///
/// Threads: one.
class CBareLoop {
  public:
    /// Connects to the system bus.
    /// @throws std::runtime_error  if it cannot
    CBareLoop();
    ~CBareLoop();
    CBareLoop(const CBareLoop&) = delete;
    CBareLoop& operator=(const CBareLoop&) = delete;

    /// Asks the bus whether the service exists.
    /// @throws std::runtime_error  if it does not
    void FindService();
    /// Calls a function of the service with one string.
    /// @throws std::runtime_error  without a reply
    void Ask(const char* pFunction, const char* pText);
    /// @throws std::runtime_error  if a batch is not accepted
    void Send(int records);

  private:
    MessagePtr MakeBatch(int records) const;
    void Call(const MessagePtr& call);

    DBusConnection* m_pConnection;
    const std::vector<char> m_Image;
};

#endif  // TALLYRA_BENCHMARKS_PEERS_BARELOOP_H
