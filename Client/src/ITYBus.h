// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_ITYBUS_H
#define TALLYRA_ITYBUS_H

#include <dbus/dbus.h>
#include <poll.h>
#include <sys/stat.h>

/// The calls of libdbus that the library makes, and the system calls on a connection's socket.
/// Tests replace this interface to make each call fail, and to let time pass in each call that
/// waits. An operation does what the function named in its comment does, and nothing else.
///
/// Threads: every operation may be called from any thread.
class ITYBus {
  public:
    virtual ~ITYBus() = default;

    /// dbus_threads_init_default
    virtual bool InitThreads() = 0;
    /// dbus_connection_set_change_sigpipe
    virtual void SetChangeSigpipe(bool change) = 0;
    /// dbus_connection_open_private
    virtual DBusConnection* OpenPrivate(const char* pAddress, DBusError* pError) = 0;

    /// dbus_bus_set_unique_name
    virtual bool SetUniqueName(DBusConnection* pConnection, const char* pName) = 0;
    /// dbus_connection_get_is_connected
    virtual bool IsConnected(DBusConnection* pConnection) = 0;
    /// dbus_connection_get_is_authenticated
    virtual bool IsAuthenticated(DBusConnection* pConnection) = 0;
    /// dbus_connection_has_messages_to_send
    virtual bool HasMessagesToSend(DBusConnection* pConnection) = 0;
    /// dbus_connection_send
    virtual bool Send(DBusConnection* pConnection, DBusMessage* pMessage,
                      dbus_uint32_t* pSerial) = 0;
    /// dbus_connection_read_write
    virtual bool ReadWrite(DBusConnection* pConnection, int timeoutMs) = 0;
    /// dbus_connection_pop_message
    virtual DBusMessage* PopMessage(DBusConnection* pConnection) = 0;
    /// dbus_connection_close
    virtual void Close(DBusConnection* pConnection) = 0;
    /// dbus_connection_unref
    virtual void Unref(DBusConnection* pConnection) = 0;

    /// dbus_message_new_method_call
    virtual DBusMessage* NewMethodCall(const char* pDestination, const char* pPath,
                                       const char* pInterface, const char* pMember) = 0;
    /// dbus_message_append_args, of one string
    virtual bool AppendString(DBusMessage* pMessage, const char* pText) = 0;

    /// dbus_connection_get_socket
    /// @return -1 when the connection has none
    virtual int GetSocket(DBusConnection* pConnection) = 0;
    /// fstat
    virtual bool Stat(int socket, struct stat* pStatus) = 0;
    /// ioctl, FIONREAD
    /// @return the bytes that can be read; 0 on failure
    virtual int Unread(int socket) = 0;
    /// poll, of one descriptor
    virtual void Poll(pollfd* pWaited, int timeoutMs) = 0;
};

/// @return an ITYBus that calls libdbus; lives as long as the process
ITYBus& SystemBus();

#endif  // TALLYRA_ITYBUS_H
