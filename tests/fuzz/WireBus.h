// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_WIREBUS_H
#define TALLYRA_TESTS_FUZZ_WIREBUS_H

#include "doubles/FakeBus.h"
#include "model/Record.h"

#include <mutex>
#include <set>
#include <string>
#include <vector>

/// A bus that keeps the bytes of each message, as they would go out.
///
/// Threads: as CFakeBus.
class CWireBus : public CFakeBus {
  public:
    DBusMessage* SendWithReplyAndBlock(DBusConnection* pConnection, DBusMessage* pMessage,
                                       int timeoutMs, DBusError* pError) override;

    /// @return the records of all batches so far, in order, as whoever reads the bytes sees them.
    ///         Bytes that are not what was agreed on end the process.
    std::vector<model::Record> Records();
    /// @return whether records may be missing behind the first `count` ones: those of a full call
    ///         that was refused end there, and the rest of its batch was dropped
    bool MayMissBehind(std::size_t count);
    /// @return the names that the policy was asked for
    std::vector<std::string> PolicyNames();

  private:
    std::vector<Arguments> Bodies(const std::string& function);
    void NoteAnswer(DBusMessage* pMessage, DBusMessage* pReply);

    std::mutex m_Mutex;
    std::vector<std::string> m_Messages;
    std::size_t m_nRecords = 0;
    std::set<std::size_t> m_Gaps;
};

#endif  // TALLYRA_TESTS_FUZZ_WIREBUS_H
