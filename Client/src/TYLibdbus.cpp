// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYLibdbus.h"

#include "TYConnectionSocket.h"
#include "TYDbusError.h"
#include "TYMessagePtr.h"
#include "TYMutex.h"
#include "TYProcess.h"
#include "TYSignalsBlocked.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

// libdbus has calls that do all this, and they suit a program that owns its process. This library
// is a guest, so three things are done here, over the same connection:
//
// - Every call ends. dbus_connection_send_with_reply_and_block has a time limit for the reply and
//   none for sending; with each signal that the host handles its wait starts again. Call() has one
//   deadline for both, and blocks signals meanwhile.
// - Nothing piles up. Nobody dispatches on this connection, so replies that come too late, and
//   messages that nobody asked for, are dropped with each call. A message that a silent bus did not
//   take goes out before the next one, so at most one waits.
// - Only our own socket is touched. A host may close all descriptors, and its next socket may get
//   our number. CTYConnectionSocket remembers which socket the connection opened; before libdbus
//   reads, writes or closes, Call() asks whether the number still means that socket. A connection
//   that lost its socket stays open in memory and makes no calls.

namespace {

// libdbus itself waits 25 s for a silent bus to name an owner, and has no limit for a connection.
constexpr int kBusTimeoutMs = 3000;
// How long libdbus may wait by itself, before a connection is authenticated.
constexpr int kHandshakeSliceMs = 100;
// How long closing may read what a flooding peer sends.
constexpr int kDrainTimeoutMs = 100;
// How long the bus may take for the rest of a message.
constexpr int kRestOfMessageMs = 5;

const char* SystemBusAddress() {
    const char* pAddress = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return pAddress != nullptr && *pAddress != '\0' ? pAddress : TALLYRA_SYSTEM_BUS_ADDRESS;
}

// libdbus ignores SIGPIPE when it opens a connection, though it writes with MSG_NOSIGNAL. It is
// told not to. Restoring the host's handler instead would undo what the host sets meanwhile.
DBusConnection* Open(DBusError* pError) {
    static CTYPerProcess<CTYMutex> mutex;
    CTYLock lock(mutex.Get());
    dbus_connection_set_change_sigpipe(FALSE);
    DBusConnection* pConnection = dbus_connection_open_private(SystemBusAddress(), pError);
    dbus_connection_set_change_sigpipe(TRUE);
    return pConnection;
}

/// What is left of a time limit.
class CDeadline {
  public:
    explicit CDeadline(int timeoutMs)
        : m_End(Clock::now() +
                std::chrono::milliseconds(timeoutMs >= 0 ? timeoutMs : kDefaultTimeoutMs)) {}

    /// @return the milliseconds that are left, 0 for none
    int Left() const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_End - Clock::now());
        return left.count() > 0 ? static_cast<int>(left.count()) : 0;
    }

  private:
    using Clock = std::chrono::steady_clock;
    // That of libdbus.
    static constexpr int kDefaultTimeoutMs = 25000;

    const Clock::time_point m_End;
};

// Drops all messages but the reply, which closes the descriptors that they carry.
TYMessagePtr PopReply(DBusConnection* pConnection, dbus_uint32_t serial) {
    TYMessagePtr reply;
    while (TYMessagePtr message{dbus_connection_pop_message(pConnection)}) {
        if (dbus_message_get_reply_serial(message.get()) == serial) {
            reply = std::move(message);
        }
    }
    return reply;
}

// Reads and writes what the socket takes at once, after waiting for it to become ready.
bool ReadWrite(DBusConnection* pConnection, const CDeadline& deadline) {
    const int left = deadline.Left();
    if (left == 0) {
        return false;
    }
    if (dbus_connection_get_is_authenticated(pConnection) == FALSE) {
        return CTYConnectionSocket::IsOurs(pConnection) &&
               dbus_connection_read_write(pConnection, std::min(left, kHandshakeSliceMs)) != FALSE;
    }
    return CTYConnectionSocket::AwaitReady(pConnection, left) &&
           dbus_connection_read_write(pConnection, 0) != FALSE;
}

bool WriteWhatIsQueued(DBusConnection* pConnection, const CDeadline& deadline) {
    while (dbus_connection_has_messages_to_send(pConnection) != FALSE) {
        if (!ReadWrite(pConnection, deadline)) {
            return false;
        }
    }
    return true;
}

// A host that was stopped past the deadline, as background applications are, has a reply waiting.
TYMessagePtr TakeLastLook(DBusConnection* pConnection, dbus_uint32_t serial) {
    if (CTYConnectionSocket::IsOurs(pConnection)) {
        dbus_connection_read_write(pConnection, 0);
    }
    return PopReply(pConnection, serial);
}

TYMessagePtr AwaitReply(DBusConnection* pConnection, dbus_uint32_t serial,
                        const CDeadline& deadline) {
    for (;;) {
        if (TYMessagePtr reply = PopReply(pConnection, serial)) {
            return reply;
        }
        if (!ReadWrite(pConnection, deadline)) {
            return TakeLastLook(pConnection, serial);
        }
    }
}

// The texts are libdbus's own: field tooling knows them.
void SetNoReply(DBusConnection* pConnection, DBusError* pError) {
    if (!CTYConnectionSocket::IsOurs(pConnection)) {
        dbus_set_error_const(pError, DBUS_ERROR_DISCONNECTED, "Connection is closed");
        return;
    }
    dbus_set_error_const(
        pError, DBUS_ERROR_NO_REPLY,
        "Did not receive a reply. Possible causes include: the remote application did not send a "
        "reply, the message bus security policy blocked the reply, the reply timeout expired, or "
        "the network connection was broken.");
}

TYMessagePtr Exchange(DBusConnection* pConnection, DBusMessage* pMessage, const CDeadline& deadline,
                      DBusError* pError) {
    if (!CTYConnectionSocket::IsOurs(pConnection) || !WriteWhatIsQueued(pConnection, deadline)) {
        SetNoReply(pConnection, pError);
        return nullptr;
    }
    dbus_uint32_t serial = 0;
    if (dbus_connection_send(pConnection, pMessage, &serial) == FALSE) {
        dbus_set_error_const(pError, DBUS_ERROR_NO_MEMORY, "no memory for a call");
        return nullptr;
    }
    TYMessagePtr reply = AwaitReply(pConnection, serial, deadline);
    if (reply == nullptr) {
        SetNoReply(pConnection, pError);
    }
    return reply;
}

TYMessagePtr Call(DBusConnection* pConnection, DBusMessage* pMessage, int timeoutMs,
                  DBusError* pError) {
    const CTYSignalsBlocked signalsBlocked;
    TYMessagePtr reply = Exchange(pConnection, pMessage, CDeadline(timeoutMs), pError);
    if (reply != nullptr && dbus_set_error_from_message(pError, reply.get()) != FALSE) {
        return nullptr;
    }
    return reply;
}

TYMessagePtr NewBusCall(const char* pMember) {
    return TYMessagePtr(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                     DBUS_INTERFACE_DBUS, pMember));
}

/// Calls the bus itself and reads one value of its reply.
/// @param type, pValue  what is expected there; the value lives as long as the reply
/// @return the reply; null with the error set
TYMessagePtr CallBus(DBusConnection* pConnection, const TYMessagePtr& call, int type, void* pValue,
                     DBusError* pError) {
    if (call == nullptr) {
        dbus_set_error_const(pError, DBUS_ERROR_NO_MEMORY, "no memory for a call of the bus");
        return nullptr;
    }
    TYMessagePtr reply = Call(pConnection, call.get(), kBusTimeoutMs, pError);
    if (reply == nullptr ||
        dbus_message_get_args(reply.get(), pError, type, pValue, DBUS_TYPE_INVALID) == FALSE) {
        return nullptr;
    }
    return reply;
}

bool SayHello(DBusConnection* pConnection, DBusError* pError) {
    const char* pName = nullptr;
    const TYMessagePtr reply =
        CallBus(pConnection, NewBusCall("Hello"), DBUS_TYPE_STRING, &pName, pError);
    if (reply == nullptr) {
        return false;
    }
    if (dbus_bus_set_unique_name(pConnection, pName) == FALSE) {
        dbus_set_error_const(pError, DBUS_ERROR_NO_MEMORY, "no memory for the unique name");
        return false;
    }
    return true;
}

TYMessagePtr NewOwnerQuery(const char* pName) {
    TYMessagePtr query = NewBusCall("NameHasOwner");
    if (query == nullptr || dbus_message_append_args(query.get(), DBUS_TYPE_STRING, &pName,
                                                     DBUS_TYPE_INVALID) == FALSE) {
        return nullptr;
    }
    return query;
}

/// @return whether a message carried descriptors
bool DropMessages(DBusConnection* pConnection) {
    bool carried = false;
    while (const TYMessagePtr dropped{dbus_connection_pop_message(pConnection)}) {
        carried = carried || dbus_message_contains_unix_fds(dropped.get()) != FALSE;
    }
    return carried;
}

// A connection that lost its socket would close a descriptor of the host.
//
// Messages of strangers may carry descriptors, and a closed connection keeps its memory: what it
// has queued then, or half read, would keep them open in the host. So everything that the bus has
// sent is read first. The bus writes half a message when the socket is full, and the rest a moment
// after the first half was read; hence the wait, where somebody does send descriptors.
void CloseIfOurs(DBusConnection* pConnection) {
    const CDeadline deadline(kDrainTimeoutMs);
    while (CTYConnectionSocket::HasUnread(pConnection) && deadline.Left() > 0 &&
           dbus_connection_read_write(pConnection, 0) != FALSE) {
        if (DropMessages(pConnection) && !CTYConnectionSocket::HasUnread(pConnection)) {
            CTYConnectionSocket::AwaitReady(pConnection, kRestOfMessageMs);
        }
    }
    if (CTYConnectionSocket::IsLost(pConnection)) {
        return;
    }
    dbus_connection_close(pConnection);
    DropMessages(pConnection);
}

// Only a closed connection may be released.
void Discard(DBusConnection* pConnection) {
    CloseIfOurs(pConnection);
    if (dbus_connection_get_is_connected(pConnection) == FALSE) {
        dbus_connection_unref(pConnection);
    }
}

}  // namespace

bool CTYLibdbus::InitThreads() {
    return dbus_threads_init_default() != FALSE;
}

DBusConnection* CTYLibdbus::GetPrivate(DBusError* pError) {
    DBusConnection* pConnection = Open(pError);
    if (pConnection == nullptr) {
        return nullptr;
    }
    if (!CTYConnectionSocket::Remember(pConnection)) {
        dbus_set_error_const(pError, DBUS_ERROR_NO_MEMORY, "no memory for a connection");
        dbus_connection_close(pConnection);
        dbus_connection_unref(pConnection);
        return nullptr;
    }
    if (!SayHello(pConnection, pError)) {
        Discard(pConnection);
        return nullptr;
    }
    return pConnection;
}

bool CTYLibdbus::NameHasOwner(DBusConnection* pConnection, const char* pName) {
    dbus_bool_t hasOwner = FALSE;
    CTYDbusError error;
    const TYMessagePtr reply =
        CallBus(pConnection, NewOwnerQuery(pName), DBUS_TYPE_BOOLEAN, &hasOwner, error.Get());
    return reply != nullptr && hasOwner != FALSE;
}

DBusMessage* CTYLibdbus::NewMethodCall(const char* pDestination, const char* pPath,
                                       const char* pInterface, const char* pMember) {
    return dbus_message_new_method_call(pDestination, pPath, pInterface, pMember);
}

DBusMessage* CTYLibdbus::SendWithReplyAndBlock(DBusConnection* pConnection, DBusMessage* pMessage,
                                               int timeoutMs, DBusError* pError) {
    return Call(pConnection, pMessage, timeoutMs, pError).release();
}

void CTYLibdbus::Close(DBusConnection* pConnection) {
    CloseIfOurs(pConnection);
}

ITYBus& SystemBus() {
    static CTYLibdbus& bus = *new CTYLibdbus;
    return bus;
}
