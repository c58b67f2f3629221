// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYBusConnection.h"

#include "TYDbusError.h"
#include "TYLimits.h"
#include "TYMutex.h"
#include "TYProcess.h"
#include "TYSignalsBlocked.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

// libdbus has functions that connect, call and wait in one step, and they suit a program that owns
// its process. This library runs inside a player: it must not block the player, fill its memory, or
// use its descriptors. So this class waits itself, and calls libdbus only for single steps:
//
// - Every call has a deadline. dbus_connection_send_with_reply_and_block limits the time for the
//   reply but not for sending, and restarts its wait after each signal that the host handles.
//   Call() has one deadline for both, and blocks signals meanwhile. Time comes from ITYClock.
// - After the deadline, Call() reads the socket once more before it fails. If the host was stopped
//   past the deadline, as background applications are, the reply may already be in the socket.
// - Until the connection is authenticated, only libdbus knows what the handshake waits for. So
//   libdbus waits then, at most 100 ms at a time, to keep the deadline.
// - Nothing accumulates. The library never dispatches on this connection. Instead, each call drops
//   late replies and unsolicited messages, which closes the descriptors that they carry. A message
//   that a silent bus did not take is written before the next one is queued, so at most one waits.
// - Only our own socket is used. A host may close all descriptors, and its next socket may get our
//   number. CTYConnectionSocket remembers which socket the connection opened, and this class asks
//   it before libdbus reads, writes or closes. A connection that lost its socket makes no calls and
//   is never closed: closing would close a descriptor of the host.
// - The host's SIGPIPE handler stays. libdbus sets SIGPIPE to ignored when it opens a connection,
//   although it writes with MSG_NOSIGNAL. This class turns that off while it opens one. Restoring
//   the host's handler afterwards would undo a change that the host makes in the meantime.
// - Only a closed connection is unreferenced; libdbus aborts otherwise. A connection that is closed
//   but not unreferenced keeps its memory, so its messages and their descriptors are dropped first.

namespace {

/// Longest single wait inside libdbus while a connection is not authenticated.
constexpr int kHandshakeSliceMs = 100;
/// Time limit of Close for reading pending messages: a peer may send without pause.
constexpr int kDrainTimeoutMs = 100;
/// Longest wait of Close for the rest of a half-written message.
constexpr int kRestOfMessageMs = 5;

const char* SystemBusAddress() {
    const char* pAddress = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return pAddress != nullptr && *pAddress != '\0' ? pAddress : TALLYRA_SYSTEM_BUS_ADDRESS;
}

}  // namespace

/// The time at which a call has to fail.
class CTYBusConnection::CDeadline {
  public:
    CDeadline(ITYClock& clock, int timeoutMs)
        : m_Clock(clock),
          m_End(clock.SteadyNow() +
                std::chrono::milliseconds(timeoutMs >= 0 ? timeoutMs : kLibdbusTimeoutMs)) {}

    /// @return the milliseconds that are left, 0 for none
    int Left() const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_End - m_Clock.SteadyNow());
        return left.count() > 0 ? static_cast<int>(left.count()) : 0;
    }

  private:
    static constexpr int kLibdbusTimeoutMs = 25000;

    ITYClock& m_Clock;
    const ITYClock::TimePoint m_End;
};

CTYBusConnection::CTYBusConnection(ITYBus& bus, ITYClock& clock)
    : m_Bus(bus), m_Clock(clock), m_Socket(bus) {}

DBusConnection* CTYBusConnection::Open(DBusError* pError) {
    m_pConnection = OpenSocket(pError);
    if (m_pConnection == nullptr) {
        return nullptr;
    }
    m_Socket.Remember(m_pConnection);
    if (!SayHello(pError)) {
        Discard();
    }
    return m_pConnection;
}

DBusConnection* CTYBusConnection::OpenSocket(DBusError* pError) {
    static CTYPerProcess<CTYMutex> mutex;
    CTYLock lock(mutex.Get());
    m_Bus.SetChangeSigpipe(false);
    DBusConnection* pConnection = m_Bus.OpenPrivate(SystemBusAddress(), pError);
    m_Bus.SetChangeSigpipe(true);
    return pConnection;
}

bool CTYBusConnection::SayHello(DBusError* pError) {
    const char* pName = nullptr;
    const TYMessagePtr reply = CallBus(NewBusCall("Hello"), DBUS_TYPE_STRING, &pName, pError);
    if (reply == nullptr) {
        return false;
    }
    if (!m_Bus.SetUniqueName(m_pConnection, pName)) {
        dbus_set_error_const(pError, DBUS_ERROR_NO_MEMORY, "no memory for the unique name");
        return false;
    }
    return true;
}

bool CTYBusConnection::NameHasOwner(const char* pName) {
    dbus_bool_t hasOwner = FALSE;
    CTYDbusError error;
    const TYMessagePtr reply =
        CallBus(NewOwnerQuery(pName), DBUS_TYPE_BOOLEAN, &hasOwner, error.Get());
    return reply != nullptr && hasOwner != FALSE;
}

TYMessagePtr CTYBusConnection::NewMethodCall(const char* pDestination, const char* pPath,
                                             const char* pInterface, const char* pMember) {
    return TYMessagePtr(m_Bus.NewMethodCall(pDestination, pPath, pInterface, pMember));
}

TYMessagePtr CTYBusConnection::NewBusCall(const char* pMember) {
    return NewMethodCall(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, pMember);
}

TYMessagePtr CTYBusConnection::NewOwnerQuery(const char* pName) {
    TYMessagePtr query = NewBusCall("NameHasOwner");
    if (query == nullptr || !m_Bus.AppendString(query.get(), pName)) {
        return nullptr;
    }
    return query;
}

/// Calls the bus itself and reads one value of its reply.
/// @param call          null on allocation failure
/// @param type, pValue  D-Bus type of that value, and where to store it; valid as long as the reply
/// @return the reply; null with the error set
TYMessagePtr CTYBusConnection::CallBus(const TYMessagePtr& call, int type, void* pValue,
                                       DBusError* pError) {
    if (call == nullptr) {
        dbus_set_error_const(pError, DBUS_ERROR_NO_MEMORY, "no memory for a call of the bus");
        return nullptr;
    }
    TYMessagePtr reply = Call(call.get(), TYLimits::kReplyTimeoutMs, pError);
    if (reply == nullptr ||
        dbus_message_get_args(reply.get(), pError, type, pValue, DBUS_TYPE_INVALID) == FALSE) {
        return nullptr;
    }
    return reply;
}

TYMessagePtr CTYBusConnection::Call(DBusMessage* pMessage, int timeoutMs, DBusError* pError) {
    const CTYSignalsBlocked signalsBlocked;
    TYMessagePtr reply = Exchange(pMessage, CDeadline(m_Clock, timeoutMs), pError);
    if (reply != nullptr && dbus_set_error_from_message(pError, reply.get()) != FALSE) {
        return nullptr;
    }
    return reply;
}

TYMessagePtr CTYBusConnection::Exchange(DBusMessage* pMessage, const CDeadline& deadline,
                                        DBusError* pError) {
    if (!m_Socket.IsOurs() || !WriteQueued(deadline)) {
        SetNoReply(pError);
        return nullptr;
    }
    dbus_uint32_t serial = 0;
    if (!m_Bus.Send(m_pConnection, pMessage, &serial)) {
        dbus_set_error_const(pError, DBUS_ERROR_NO_MEMORY, "no memory for a call");
        return nullptr;
    }
    TYMessagePtr reply = AwaitReply(serial, deadline);
    if (reply == nullptr) {
        SetNoReply(pError);
    }
    return reply;
}

bool CTYBusConnection::WriteQueued(const CDeadline& deadline) {
    while (m_Bus.HasMessagesToSend(m_pConnection)) {
        if (!ReadWrite(deadline)) {
            return false;
        }
    }
    return true;
}

TYMessagePtr CTYBusConnection::AwaitReply(dbus_uint32_t serial, const CDeadline& deadline) {
    for (;;) {
        if (TYMessagePtr reply = PopReply(serial)) {
            return reply;
        }
        if (!ReadWrite(deadline)) {
            return ReadOnceMore(serial);
        }
    }
}

TYMessagePtr CTYBusConnection::ReadOnceMore(dbus_uint32_t serial) {
    if (m_Socket.IsOurs()) {
        m_Bus.ReadWrite(m_pConnection, 0);
    }
    return PopReply(serial);
}

// Drops all messages but the reply.
TYMessagePtr CTYBusConnection::PopReply(dbus_uint32_t serial) {
    TYMessagePtr reply;
    while (TYMessagePtr message{m_Bus.PopMessage(m_pConnection)}) {
        if (dbus_message_get_reply_serial(message.get()) == serial) {
            reply = std::move(message);
        }
    }
    return reply;
}

// Waits until the socket is ready, then reads and writes without blocking.
// @return false after the deadline, or when the socket is closed or lost
bool CTYBusConnection::ReadWrite(const CDeadline& deadline) {
    const int left = deadline.Left();
    if (left == 0) {
        return false;
    }
    if (!m_Bus.IsAuthenticated(m_pConnection)) {
        return m_Socket.IsOurs() &&
               m_Bus.ReadWrite(m_pConnection, std::min(left, kHandshakeSliceMs));
    }
    return m_Socket.AwaitReady(left) && m_Bus.ReadWrite(m_pConnection, 0);
}

// The texts are libdbus's own: field tooling knows them.
void CTYBusConnection::SetNoReply(DBusError* pError) {
    if (!m_Socket.IsOurs()) {
        dbus_set_error_const(pError, DBUS_ERROR_DISCONNECTED, "Connection is closed");
        return;
    }
    dbus_set_error_const(
        pError, DBUS_ERROR_NO_REPLY,
        "Did not receive a reply. Possible causes include: the remote application did not send a "
        "reply, the message bus security policy blocked the reply, the reply timeout expired, or "
        "the network connection was broken.");
}

/// @return whether any dropped message carried descriptors
bool CTYBusConnection::DropMessages() {
    bool carried = false;
    while (const TYMessagePtr dropped{m_Bus.PopMessage(m_pConnection)}) {
        carried = carried || dbus_message_contains_unix_fds(dropped.get()) != FALSE;
    }
    return carried;
}

// A closed connection keeps its memory: descriptors in messages that it has queued or half read
// would stay open in the host. So Close first reads everything that the bus has sent. If the socket
// was full, the bus has written half a message and writes the rest after the first half was read.
// Close waits for that rest only if a peer has sent descriptors.
void CTYBusConnection::Close() {
    const CDeadline deadline(m_Clock, kDrainTimeoutMs);
    while (m_Socket.HasUnread() && deadline.Left() > 0 && m_Bus.ReadWrite(m_pConnection, 0)) {
        if (DropMessages() && !m_Socket.HasUnread()) {
            m_Socket.AwaitReady(kRestOfMessageMs);
        }
    }
    if (m_Socket.IsLost()) {
        return;
    }
    m_Bus.Close(m_pConnection);
    DropMessages();
}

void CTYBusConnection::Discard() {
    Close();
    if (!m_Bus.IsConnected(m_pConnection)) {
        m_Bus.Unref(m_pConnection);
    }
    m_pConnection = nullptr;
}
