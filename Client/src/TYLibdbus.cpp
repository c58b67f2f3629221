// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYLibdbus.h"

#include <chrono>
#include <csignal>
#include <cstdlib>

namespace {

// On a bus that is silent, libdbus by itself waits 25 seconds for an owner, and for a connection
// without an end.
constexpr int kBusTimeoutMs = 3000;
constexpr const char* kWellKnownAddress = "unix:path=/run/dbus/system_bus_socket";

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

const char* SystemBusAddress() {
    const char* pAddress = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return pAddress != nullptr && *pAddress != '\0' ? pAddress : kWellKnownAddress;
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
DBusMessage* PopReply(DBusConnection* pConnection, dbus_uint32_t serial) {
    while (DBusMessage* pMessage = dbus_connection_pop_message(pConnection)) {
        if (dbus_message_get_reply_serial(pMessage) == serial) {
            return pMessage;
        }
        dbus_message_unref(pMessage);
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

DBusMessage* AwaitReply(DBusConnection* pConnection, dbus_uint32_t serial,
                        const CDeadline& deadline) {
    for (;;) {
        if (DBusMessage* pReply = PopReply(pConnection, serial)) {
            return pReply;
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
// the sending: a bus that is silent would hold up whoever waits for this thread.
DBusMessage* Call(DBusConnection* pConnection, DBusMessage* pMessage, int timeoutMs,
                  DBusError* pError) {
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
    DBusMessage* pReply = AwaitReply(pConnection, serial, deadline);
    if (pReply == nullptr) {
        SetNoReply(pConnection, pError);
        return nullptr;
    }
    if (dbus_set_error_from_message(pError, pReply) != FALSE) {
        dbus_message_unref(pReply);
        return nullptr;
    }
    return pReply;
}

/// Calls the bus itself and reads one value of its reply.
/// @param type, pValue  what is expected there; the value lives as long as the reply
/// @return the reply, the caller's; null with the error set
DBusMessage* CallBus(DBusConnection* pConnection, DBusMessage* pMessage, int type, void* pValue,
                     DBusError* pError) {
    if (pMessage == nullptr) {
        dbus_set_error_const(pError, DBUS_ERROR_NO_MEMORY, "no memory for a call of the bus");
        return nullptr;
    }
    DBusMessage* pReply = Call(pConnection, pMessage, kBusTimeoutMs, pError);
    dbus_message_unref(pMessage);
    if (pReply != nullptr &&
        dbus_message_get_args(pReply, pError, type, pValue, DBUS_TYPE_INVALID) == FALSE) {
        dbus_message_unref(pReply);
        return nullptr;
    }
    return pReply;
}

DBusMessage* NewBusCall(const char* pMember) {
    return dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS,
                                        pMember);
}

bool SayHello(DBusConnection* pConnection, DBusError* pError) {
    const char* pName = nullptr;
    DBusMessage* pReply =
        CallBus(pConnection, NewBusCall("Hello"), DBUS_TYPE_STRING, &pName, pError);
    if (pReply == nullptr) {
        return false;
    }
    const bool named = dbus_bus_set_unique_name(pConnection, pName) != FALSE;
    dbus_message_unref(pReply);
    if (!named) {
        dbus_set_error_const(pError, DBUS_ERROR_NO_MEMORY, "no memory for the unique name");
    }
    return named;
}

DBusMessage* NewOwnerQuery(const char* pName) {
    DBusMessage* pMessage = NewBusCall("NameHasOwner");
    if (pMessage != nullptr &&
        dbus_message_append_args(pMessage, DBUS_TYPE_STRING, &pName, DBUS_TYPE_INVALID) == FALSE) {
        dbus_message_unref(pMessage);
        return nullptr;
    }
    return pMessage;
}

}  // namespace

bool CTYLibdbus::InitThreads() {
    return dbus_threads_init_default() != FALSE;
}

DBusConnection* CTYLibdbus::GetPrivate(DBusError* pError) {
    DBusConnection* pConnection = nullptr;
    {
        const CSigPipeKept sigPipeKept;
        pConnection = dbus_connection_open_private(SystemBusAddress(), pError);
    }
    if (pConnection != nullptr && !SayHello(pConnection, pError)) {
        dbus_connection_close(pConnection);
        dbus_connection_unref(pConnection);
        return nullptr;
    }
    return pConnection;
}

bool CTYLibdbus::NameHasOwner(DBusConnection* pConnection, const char* pName) {
    dbus_bool_t hasOwner = FALSE;
    DBusError error;
    dbus_error_init(&error);
    DBusMessage* pReply =
        CallBus(pConnection, NewOwnerQuery(pName), DBUS_TYPE_BOOLEAN, &hasOwner, &error);
    dbus_error_free(&error);
    if (pReply == nullptr) {
        return false;
    }
    dbus_message_unref(pReply);
    return hasOwner != FALSE;
}

DBusMessage* CTYLibdbus::NewMethodCall(const char* pDestination, const char* pPath,
                                       const char* pInterface, const char* pMember) {
    return dbus_message_new_method_call(pDestination, pPath, pInterface, pMember);
}

DBusMessage* CTYLibdbus::SendWithReplyAndBlock(DBusConnection* pConnection, DBusMessage* pMessage,
                                               int timeoutMs, DBusError* pError) {
    return Call(pConnection, pMessage, timeoutMs, pError);
}

void CTYLibdbus::Close(DBusConnection* pConnection) {
    dbus_connection_close(pConnection);
}

ITYBus& SystemBus() {
    static CTYLibdbus bus;
    return bus;
}
