// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYBUSSTREAM_H
#define TALLYRA_TYBUSSTREAM_H

#include "TYMessagePtr.h"
#include "TYMessageReader.h"
#include "TYMutex.h"

#include <dbus/dbus.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

/// A connection to a bus that reads all that has arrived at once, see TYBusStream.cpp. The
/// constructor throws std::runtime_error with a text for the operator.
///
/// Threads: any may call Send, Write and Flush; one calls everything else. The mutex guards the
/// output.
class CTYBusStream {
  public:
    using Clock = std::chrono::steady_clock;
    using Receiver = std::function<void(const TYArrival&)>;

    /// Connects, authenticates and says Hello. Blocks at most some seconds.
    /// @param address     D-Bus address; empty for the system bus
    /// @param maxMessage  size of the largest message that is read with its body
    CTYBusStream(const std::string& address, std::size_t maxMessage);
    CTYBusStream(const CTYBusStream&) = delete;
    CTYBusStream& operator=(const CTYBusStream&) = delete;

    int Fd() const { return m_nFd; }
    /// @return the events to poll the descriptor for
    short Events() TY_EXCLUDES(m_Mutex);

    /// Writes and reads without blocking, and passes on each message that has arrived.
    /// @param atMost  returns after about that time even if there is more to read
    /// @return false once the bus has disconnected
    bool Exchange(Clock::duration atMost, const Receiver& receiver) TY_EXCLUDES(m_Mutex);

    /// Queues a message, which the next Write or Exchange writes. Drops it on allocation failure.
    /// @return its serial
    dbus_uint32_t Send(DBusMessage* pMessage) TY_EXCLUDES(m_Mutex);

    /// Writes what does not block.
    /// @return whether everything is written
    bool Write() TY_EXCLUDES(m_Mutex);

    /// Sends a call to the bus driver and blocks until it answers. Passes on all messages that
    /// arrive before.
    /// @return the answer, or null after a few seconds
    TYMessagePtr Call(DBusMessage* pCall, const Receiver& receiver) TY_EXCLUDES(m_Mutex);

    /// Blocks until all messages are written, at most some seconds.
    void Flush() TY_EXCLUDES(m_Mutex);

    /// @return whether the message is the bus driver's answer to a call of this connection
    static bool IsAnswer(DBusMessage* pMessage, dbus_uint32_t serial);

  private:
    struct CloseConnection {
        void operator()(DBusConnection* pConnection) const;
    };
    using Connection = std::unique_ptr<DBusConnection, CloseConnection>;

    static Connection Connect(const std::string& address);
    bool IsCongested() TY_EXCLUDES(m_Mutex);
    int Receive();
    bool WaitFor(Clock::duration time);

    const Connection m_pConnection;  ///< owns the descriptor
    int m_nFd = -1;                  ///< set once
    CTYMessageReader m_Reader;
    CTYMutex m_Mutex;
    dbus_uint32_t m_nSerial TY_GUARDED_BY(m_Mutex) = 0;
    std::string m_strOutput TY_GUARDED_BY(m_Mutex);
};

#endif  // TALLYRA_TYBUSSTREAM_H
