// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_ITYBUS_H
#define TALLYRA_ITYBUS_H

#include <dbus/dbus.h>

/// The calls of libdbus that reach the bus or make a message: the seam through which tests make
/// every one of them fail. Each does what the function of libdbus in its comment does, but waits no
/// longer than it is told to, or three seconds.
///
/// Threads: every operation may be called from any thread.
class ITYBus {
  public:
    virtual ~ITYBus() = default;

    /// dbus_threads_init_default
    virtual bool InitThreads() = 0;
    /// dbus_bus_get_private, for the system bus
    virtual DBusConnection* GetPrivate(DBusError* pError) = 0;
    /// dbus_bus_name_has_owner, without an error object
    virtual bool NameHasOwner(DBusConnection* pConnection, const char* pName) = 0;
    /// dbus_message_new_method_call
    virtual DBusMessage* NewMethodCall(const char* pDestination, const char* pPath,
                                       const char* pInterface, const char* pMember) = 0;
    /// dbus_connection_send_with_reply_and_block
    virtual DBusMessage* SendWithReplyAndBlock(DBusConnection* pConnection, DBusMessage* pMessage,
                                               int timeoutMs, DBusError* pError) = 0;
    /// dbus_connection_close
    virtual void Close(DBusConnection* pConnection) = 0;
};

/// @return the bus as libdbus reaches it; it lives as long as the process
ITYBus& SystemBus();

#endif  // TALLYRA_ITYBUS_H
