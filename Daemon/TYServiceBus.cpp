// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYServiceBus.h"

#include "TYBusNames.h"
#include "TYDbusError.h"
#include "TYServiceHandler.h"

#include <fstream>
#include <stdexcept>

// Problem: the service handles all players on one thread. No player may block it: neither one that
// sends faster than the service stores, nor one that stops reading its replies.
//
// Idea: the thread waits in poll() for the bus, for signals and for the next housekeeping (see
// CService in ServiceMain.cpp). When the bus is ready, Serve reads and writes once without
// blocking, handles every message that has arrived completely, and returns.
//
// Back-pressure: libdbus stops reading once kMaxReceivedBytes of unhandled messages are in memory.
// Further messages wait in the bus, whose own limits then apply to the senders.
//
// Replies are queued in libdbus. While HasOutput is true, the thread also polls for POLLOUT, and
// the next Serve continues to write.
//
// A handler may have to ask the bus driver for the credentials of a new peer, and blocks until the
// driver answers. On the main connection that answer would queue behind every message that players
// have sent by then, so the service asks the driver on a second connection.
//
// Always true:
// - Serve handles messages in the order of arrival, one at a time.
// - Only Identify, OwnName, ReleaseName and Flush block, and only on the bus, never on a player.
// - On shutdown the name is released first; Serve then still handles the messages that the bus has
//   already delivered, and Flush writes their replies.

namespace {

constexpr int kDriverTimeoutMs = 5000;
// Limit of unhandled messages in memory.
constexpr long kMaxReceivedBytes = 64L << 20;

DBusConnection* Connect(const std::string& address) {
    CTYDbusError error;
    DBusConnection* pConnection = address.empty()
                                      ? dbus_bus_get_private(DBUS_BUS_SYSTEM, error.Get())
                                      : dbus_connection_open_private(address.c_str(), error.Get());
    if (pConnection == nullptr) {
        throw std::runtime_error(std::string("cannot connect to the bus: ") + error.Message());
    }
    dbus_connection_set_exit_on_disconnect(pConnection, 0);
    if (!address.empty() && dbus_bus_register(pConnection, error.Get()) == 0) {
        dbus_connection_close(pConnection);
        dbus_connection_unref(pConnection);
        throw std::runtime_error(std::string("the bus refuses the connection: ") + error.Message());
    }
    return pConnection;
}

void ReadCredential(DBusMessageIter* pEntry, TYPeerIdentity& peer) {
    DBusMessageIter variant;
    const char* pKey = nullptr;
    dbus_message_iter_get_basic(pEntry, &pKey);
    dbus_message_iter_next(pEntry);
    dbus_message_iter_recurse(pEntry, &variant);
    if (dbus_message_iter_get_arg_type(&variant) != DBUS_TYPE_UINT32) {
        return;
    }
    dbus_uint32_t value = 0;
    dbus_message_iter_get_basic(&variant, &value);
    if (std::string_view(pKey) == "UnixUserID") {
        peer.uid = value;
    } else if (std::string_view(pKey) == "ProcessID") {
        peer.pid = value;
    }
}

void ReadCredentials(DBusMessage* pReply, TYPeerIdentity& peer) {
    DBusMessageIter iterator;
    DBusMessageIter entries;
    if (!dbus_message_has_signature(pReply, "a{sv}")) {
        return;
    }
    dbus_message_iter_init(pReply, &iterator);
    dbus_message_iter_recurse(&iterator, &entries);
    while (dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY) {
        DBusMessageIter entry;
        dbus_message_iter_recurse(&entries, &entry);
        ReadCredential(&entry, peer);
        dbus_message_iter_next(&entries);
    }
}

std::string CommandOf(std::int64_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string command;
    std::getline(file, command);
    return command.empty() ? "unknown" : command;
}

}  // namespace

void CTYServiceBus::Close::operator()(DBusConnection* pConnection) const {
    dbus_connection_close(pConnection);
    dbus_connection_unref(pConnection);
}

CTYServiceBus::CTYServiceBus(const std::string& address)
    : m_pConnection(Connect(address)), m_pInquiries(Connect(address)) {
    dbus_connection_set_max_received_size(m_pConnection.get(), kMaxReceivedBytes);
    CTYDbusError error;
    char* pId = dbus_bus_get_id(m_pConnection.get(), error.Get());
    if (pId == nullptr) {
        throw std::runtime_error(std::string("cannot get the bus identifier: ") + error.Message());
    }
    m_strBusId = pId;
    dbus_free(pId);
}

void CTYServiceBus::OwnName() {
    CTYDbusError error;
    const int result = dbus_bus_request_name(m_pConnection.get(), TYBusNames::kService,
                                             DBUS_NAME_FLAG_DO_NOT_QUEUE, error.Get());
    if (result == DBUS_REQUEST_NAME_REPLY_EXISTS) {
        throw std::runtime_error(std::string(TYBusNames::kService) + " is already owned by " +
                                 DescribeNameOwner());
    }
    if (result != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        throw std::runtime_error(std::string("not allowed to own ") + TYBusNames::kService + ": " +
                                 error.Message());
    }
}

void CTYServiceBus::ReleaseName() {
    CTYDbusError error;
    dbus_bus_release_name(m_pConnection.get(), TYBusNames::kService, error.Get());
}

TYMessagePtr CTYServiceBus::AskDriver(const char* pMethod, const char* pName) {
    CTYDbusError error;
    const TYMessagePtr call(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                         DBUS_INTERFACE_DBUS, pMethod));
    if (call == nullptr ||
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &pName, DBUS_TYPE_INVALID) == 0) {
        return nullptr;
    }
    return TYMessagePtr(dbus_connection_send_with_reply_and_block(m_pInquiries.get(), call.get(),
                                                                  kDriverTimeoutMs, error.Get()));
}

TYPeerIdentity CTYServiceBus::Identify(const std::string& name) {
    TYPeerIdentity peer{m_strBusId, name, std::nullopt, std::nullopt};
    if (const TYMessagePtr reply = AskDriver("GetConnectionCredentials", name.c_str())) {
        ReadCredentials(reply.get(), peer);
    }
    return peer;
}

std::string CTYServiceBus::DescribeNameOwner() {
    const TYMessagePtr reply = AskDriver("GetNameOwner", TYBusNames::kService);
    const char* pOwner = nullptr;
    if (reply == nullptr || dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_STRING, &pOwner,
                                                  DBUS_TYPE_INVALID) == 0) {
        return "a process that has just exited";
    }
    const TYPeerIdentity holder = Identify(pOwner);
    return holder.name + ", process " + std::to_string(holder.pid.value_or(-1)) + " (" +
           CommandOf(holder.pid.value_or(-1)) + ")";
}

int CTYServiceBus::Fd() const {
    int fd = -1;
    dbus_connection_get_unix_fd(m_pConnection.get(), &fd);
    return fd;
}

bool CTYServiceBus::HasOutput() const {
    return dbus_connection_has_messages_to_send(m_pConnection.get()) != 0;
}

bool CTYServiceBus::Serve(const Handler& handler) {
    const bool connected = dbus_connection_read_write(m_pConnection.get(), 0) != 0;
    while (const TYMessagePtr message{dbus_connection_pop_message(m_pConnection.get())}) {
        const TYMessagePtr reply = handler(message.get());
        if (reply != nullptr) {
            dbus_connection_send(m_pConnection.get(), reply.get(), nullptr);
        }
    }
    return connected;
}
