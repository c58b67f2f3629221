// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_CAPTURE_CAPTURINGBUS_H
#define TALLYRA_TESTS_CAPTURE_CAPTURINGBUS_H

#include "doubles/FakeBus.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

/// A fake bus that keeps each message as the bytes that a socket would carry. Serials, which a
/// connection would give, count from 1.
///
/// Threads: calls come from any; so may everything else.
class CCapturingBus : public CFakeBus {
  public:
    DBusMessage* SendWithReplyAndBlock(DBusConnection* pConnection, DBusMessage* pMessage,
                                       int timeoutMs, DBusError* pError) override;

    /// Has the next call wait, once its bytes are kept, until Release.
    void Hold();
    /// @return whether a call waits, before half a minute is over
    bool AwaitHeld();
    void Release();

    /// @return all messages so far, one behind the other
    std::string Bytes();

  private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::string m_Bytes;
    std::uint32_t m_nSerial = 0;
    bool m_bHold = false;
    bool m_bHeld = false;
};

#endif  // TALLYRA_TESTS_CAPTURE_CAPTURINGBUS_H
