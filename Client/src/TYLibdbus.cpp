// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYLibdbus.h"

#include "TYDbusError.h"
#include "TYMessagePtr.h"
#include "TYMutex.h"
#include "TYSignalsBlocked.h"
#include "TYUndestroyed.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <utility>

namespace {

// On a bus that is silent, libdbus by itself waits 25 seconds for an owner, and for a connection
// without an end.
constexpr int kBusTimeoutMs = 3000;

const char* SystemBusAddress() {
    const char* pAddress = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return pAddress != nullptr && *pAddress != '\0' ? pAddress : TALLYRA_SYSTEM_BUS_ADDRESS;
}

/// Keeps the host's way with SIGPIPE over a scope. libdbus has the signal ignored when it makes a
/// connection, and does not even need that: it writes with MSG_NOSIGNAL.
class CSigPipeKept {
  public:
    CSigPipeKept() { sigaction(SIGPIPE, nullptr, &m_Before); }
    ~CSigPipeKept() { sigaction(SIGPIPE, &m_Before, nullptr); }
    CSigPipeKept(const CSigPipeKept&) = delete;
    CSigPipeKept& operator=(const CSigPipeKept&) = delete;

  private:
    struct sigaction m_Before {};
};

// One at a time: the second of two would take libdbus's way for the host's.
DBusConnection* Open(DBusError* pError) {
    static CTYMutex mutex;
    CTYLock lock(mutex);
    const CSigPipeKept sigPipeKept;
    return dbus_connection_open_private(SystemBusAddress(), pError);
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

// Nobody dispatches: replies that came too late and messages that nobody asked for are dropped
// here, or they would pile up.
TYMessagePtr PopReply(DBusConnection* pConnection, dbus_uint32_t serial) {
    while (TYMessagePtr message{dbus_connection_pop_message(pConnection)}) {
        if (dbus_message_get_reply_serial(message.get()) == serial) {
            return message;
        }
    }
    return nullptr;
}

// A message that the bus did not take in its time is still queued. It goes first, or a bus that is
// silent would have one more queued with each call.
bool WriteWhatIsQueued(DBusConnection* pConnection, const CDeadline& deadline) {
    while (dbus_connection_has_messages_to_send(pConnection) != FALSE) {
        const int left = deadline.Left();
        if (left == 0 || dbus_connection_read_write(pConnection, left) == FALSE) {
            return false;
        }
    }
    return true;
}

TYMessagePtr AwaitReply(DBusConnection* pConnection, dbus_uint32_t serial,
                        const CDeadline& deadline) {
    for (;;) {
        if (TYMessagePtr reply = PopReply(pConnection, serial)) {
            return reply;
        }
        const int left = deadline.Left();
        if (left == 0 || dbus_connection_read_write(pConnection, left) == FALSE) {
            return PopReply(pConnection, serial);
        }
    }
}

void SetNoReply(DBusConnection* pConnection, DBusError* pError) {
    if (dbus_connection_get_is_connected(pConnection) == FALSE) {
        dbus_set_error_const(pError, DBUS_ERROR_DISCONNECTED, "Connection is closed");
    } else {
        dbus_set_error_const(pError, DBUS_ERROR_NO_REPLY, "No reply within the time limit");
    }
}

// As dbus_connection_send_with_reply_and_block, which has a time limit for the reply but none for
// the sending: a bus that is silent would hold up whoever waits for this thread. With each signal
// that a host handles libdbus would begin to wait anew.
TYMessagePtr Call(DBusConnection* pConnection, DBusMessage* pMessage, int timeoutMs,
                  DBusError* pError) {
    const CTYSignalsBlocked signalsBlocked;
    const CDeadline deadline(timeoutMs);
    if (!WriteWhatIsQueued(pConnection, deadline)) {
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
        return nullptr;
    }
    return dbus_set_error_from_message(pError, reply.get()) == FALSE ? std::move(reply) : nullptr;
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
    const bool holds = reply != nullptr && dbus_message_get_args(reply.get(), pError, type, pValue,
                                                                 DBUS_TYPE_INVALID) != FALSE;
    return holds ? std::move(reply) : nullptr;
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
    const bool whole =
        query != nullptr &&
        dbus_message_append_args(query.get(), DBUS_TYPE_STRING, &pName, DBUS_TYPE_INVALID) != FALSE;
    return whole ? std::move(query) : nullptr;
}

}  // namespace

bool CTYLibdbus::InitThreads() {
    return dbus_threads_init_default() != FALSE;
}

DBusConnection* CTYLibdbus::GetPrivate(DBusError* pError) {
    DBusConnection* pConnection = Open(pError);
    if (pConnection != nullptr && !SayHello(pConnection, pError)) {
        dbus_connection_close(pConnection);
        dbus_connection_unref(pConnection);
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
    dbus_connection_close(pConnection);
}

ITYBus& SystemBus() {
    static CTYUndestroyed<CTYLibdbus> bus;
    return bus.Get();
}
