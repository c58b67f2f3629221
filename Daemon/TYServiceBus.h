// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSERVICEBUS_H
#define TALLYRA_TYSERVICEBUS_H

#include "TYBusStream.h"
#include "TYMessagePtr.h"
#include "TYPeerIdentity.h"

#include <dbus/dbus.h>

#include <poll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>

/// The service's connections to the bus. The constructor and OwnName throw std::runtime_error with
/// a text for the operator.
///
/// Threads: any may call BeginRelease, IsReleased, IsBehind, Send, Write and Flush; one calls
/// the others.
class CTYServiceBus {
  public:
    using Clock = std::chrono::steady_clock;
    using Receiver = CTYBusStream::Receiver;

    /// Connects to a bus.
    /// @param address     D-Bus address; empty for the system bus
    /// @param maxMessage  size of the largest message that is read with its body
    CTYServiceBus(const std::string& address, std::size_t maxMessage);

    /// Requests the service's name. If another process owns it, the error names that process.
    /// @param receiver  gets calls: those that have made the bus start the service arrive first
    void OwnName(const Receiver& receiver);
    /// Asks the bus to release the name, without waiting for it.
    void BeginRelease();
    /// @return whether the bus has released the name, and Read has passed on all messages that were
    ///         sent to the name before
    bool IsReleased() const { return m_Release == Release::DONE; }

    /// @return the credentials of a unique name; asks the bus driver and blocks at most 5 s
    TYPeerIdentity Identify(const std::string& name);

    /// @return what to poll
    std::array<pollfd, 2> Polled();

    /// Reads and writes without blocking, and passes each message to the receiver.
    /// @param atMost  returns after about that time even if there is more to read
    /// @return false once the bus has disconnected
    bool Read(std::chrono::steady_clock::duration atMost, const Receiver& receiver);

    /// Asks the bus for a sign that everything in its queue has been read. Does nothing if the
    /// last sign has not arrived yet.
    void Probe();
    /// @return whether the bus has had more in its queue than Read has read, for some time
    bool IsBehind() const;

    /// Queues a message, which the next Write or Read writes.
    void Send(const TYMessagePtr& message) { m_Calls.Send(message.get()); }

    /// Writes what does not block.
    /// @return whether everything is written
    bool Write() { return m_Calls.Write(); }

    /// Blocks until all replies are written, at most 5 s.
    void Flush() { m_Calls.Flush(); }

  private:
    enum class Release { NONE, BEGUN, DONE };

    std::string DescribeNameOwner();
    TYMessagePtr AskDriver(const char* pMethod, const char* pName);
    bool TakeAnswer(DBusMessage* pHeader);

    CTYBusStream m_Calls;
    // Calls the bus driver. On m_Calls its answers would queue behind messages of players.
    CTYBusStream m_Inquiries;
    std::string m_strBusId;
    std::atomic<Release> m_Release = Release::NONE;
    dbus_uint32_t m_nProbe = 0;  ///< serial of the unanswered probe; 0 if there is none
    std::atomic<Clock::time_point> m_ProbeSent = Clock::time_point::max();
};

#endif  // TALLYRA_TYSERVICEBUS_H
