// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYLibdbus.h"

#include <sys/ioctl.h>

bool CTYLibdbus::InitThreads() {
    return dbus_threads_init_default() != FALSE;
}

void CTYLibdbus::SetChangeSigpipe(bool change) {
    dbus_connection_set_change_sigpipe(change ? TRUE : FALSE);
}

DBusConnection* CTYLibdbus::OpenPrivate(const char* pAddress, DBusError* pError) {
    return dbus_connection_open_private(pAddress, pError);
}

bool CTYLibdbus::SetUniqueName(DBusConnection* pConnection, const char* pName) {
    return dbus_bus_set_unique_name(pConnection, pName) != FALSE;
}

bool CTYLibdbus::IsConnected(DBusConnection* pConnection) {
    return dbus_connection_get_is_connected(pConnection) != FALSE;
}

bool CTYLibdbus::IsAuthenticated(DBusConnection* pConnection) {
    return dbus_connection_get_is_authenticated(pConnection) != FALSE;
}

bool CTYLibdbus::HasMessagesToSend(DBusConnection* pConnection) {
    return dbus_connection_has_messages_to_send(pConnection) != FALSE;
}

bool CTYLibdbus::Send(DBusConnection* pConnection, DBusMessage* pMessage, dbus_uint32_t* pSerial) {
    return dbus_connection_send(pConnection, pMessage, pSerial) != FALSE;
}

bool CTYLibdbus::ReadWrite(DBusConnection* pConnection, int timeoutMs) {
    return dbus_connection_read_write(pConnection, timeoutMs) != FALSE;
}

DBusMessage* CTYLibdbus::PopMessage(DBusConnection* pConnection) {
    return dbus_connection_pop_message(pConnection);
}

void CTYLibdbus::Close(DBusConnection* pConnection) {
    dbus_connection_close(pConnection);
}

void CTYLibdbus::Unref(DBusConnection* pConnection) {
    dbus_connection_unref(pConnection);
}

DBusMessage* CTYLibdbus::NewMethodCall(const char* pDestination, const char* pPath,
                                       const char* pInterface, const char* pMember) {
    return dbus_message_new_method_call(pDestination, pPath, pInterface, pMember);
}

bool CTYLibdbus::AppendString(DBusMessage* pMessage, const char* pText) {
    return dbus_message_append_args(pMessage, DBUS_TYPE_STRING, &pText, DBUS_TYPE_INVALID) != FALSE;
}

int CTYLibdbus::GetSocket(DBusConnection* pConnection) {
    int socket = -1;
    return dbus_connection_get_socket(pConnection, &socket) != FALSE ? socket : -1;
}

bool CTYLibdbus::Stat(int socket, struct stat* pStatus) {
    return fstat(socket, pStatus) == 0;
}

int CTYLibdbus::Unread(int socket) {
    int bytes = 0;
    return ioctl(socket, FIONREAD, &bytes) == 0 ? bytes : 0;
}

void CTYLibdbus::Poll(pollfd* pWaited, int timeoutMs) {
    poll(pWaited, 1, timeoutMs);
}

ITYBus& SystemBus() {
    static CTYLibdbus& bus = *new CTYLibdbus;
    return bus;
}
