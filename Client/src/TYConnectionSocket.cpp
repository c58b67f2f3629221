// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYConnectionSocket.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <memory>
#include <new>

namespace {

/// What no other open file has at the same time.
struct Identity {
    dev_t device;
    ino_t inode;
};

// libdbus keeps the identity with the connection, in a slot that it writes under its own lock,
// once.
dbus_int32_t s_nSlot = -1;

void FreeIdentity(void* pIdentity) {
    delete static_cast<Identity*>(pIdentity);
}

int SocketOf(DBusConnection* pConnection) {
    int socket = -1;
    return dbus_connection_get_socket(pConnection, &socket) != FALSE ? socket : -1;
}

bool HasIdentity(int socket, const Identity& identity) {
    struct stat status {};
    return fstat(socket, &status) == 0 && status.st_dev == identity.device &&
           status.st_ino == identity.inode;
}

}  // namespace

bool CTYConnectionSocket::Remember(DBusConnection* pConnection) {
    struct stat status {};
    fstat(SocketOf(pConnection), &status);
    std::unique_ptr<Identity> identity(new (std::nothrow) Identity{status.st_dev, status.st_ino});
    if (identity == nullptr || dbus_connection_allocate_data_slot(&s_nSlot) == FALSE ||
        dbus_connection_set_data(pConnection, s_nSlot, identity.get(), &FreeIdentity) == FALSE) {
        return false;
    }
    static_cast<void>(identity.release());  // the connection's now
    return true;
}

bool CTYConnectionSocket::IsOurs(DBusConnection* pConnection) {
    return dbus_connection_get_is_connected(pConnection) != FALSE && !IsLost(pConnection);
}

bool CTYConnectionSocket::IsLost(DBusConnection* pConnection) {
    if (dbus_connection_get_is_connected(pConnection) == FALSE) {
        return false;
    }
    const auto* pIdentity =
        static_cast<const Identity*>(dbus_connection_get_data(pConnection, s_nSlot));
    return pIdentity == nullptr || !HasIdentity(SocketOf(pConnection), *pIdentity);
}

bool CTYConnectionSocket::HasUnread(DBusConnection* pConnection) {
    int unread = 0;
    return IsOurs(pConnection) && ioctl(SocketOf(pConnection), FIONREAD, &unread) == 0 &&
           unread > 0;
}

bool CTYConnectionSocket::AwaitReady(DBusConnection* pConnection, int timeMs) {
    if (!IsOurs(pConnection)) {
        return false;
    }
    const bool writes = dbus_connection_has_messages_to_send(pConnection) != FALSE;
    pollfd waited{SocketOf(pConnection), static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0};
    poll(&waited, 1, timeMs);
    return IsOurs(pConnection);
}
