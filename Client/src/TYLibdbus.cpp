// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYLibdbus.h"

bool CTYLibdbus::InitThreads() {
    return dbus_threads_init_default() != FALSE;
}

DBusConnection* CTYLibdbus::GetPrivate(DBusError* pError) {
    return dbus_bus_get_private(DBUS_BUS_SYSTEM, pError);
}

bool CTYLibdbus::NameHasOwner(DBusConnection* pConnection, const char* pName) {
    return dbus_bus_name_has_owner(pConnection, pName, nullptr) != FALSE;
}

DBusMessage* CTYLibdbus::NewMethodCall(const char* pDestination, const char* pPath,
                                       const char* pInterface, const char* pMember) {
    return dbus_message_new_method_call(pDestination, pPath, pInterface, pMember);
}

DBusMessage* CTYLibdbus::SendWithReplyAndBlock(DBusConnection* pConnection, DBusMessage* pMessage,
                                               int timeoutMs, DBusError* pError) {
    return dbus_connection_send_with_reply_and_block(pConnection, pMessage, timeoutMs, pError);
}

void CTYLibdbus::Close(DBusConnection* pConnection) {
    dbus_connection_close(pConnection);
}

ITYBus& SystemBus() {
    static CTYLibdbus bus;
    return bus;
}
