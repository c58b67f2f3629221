// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYBUSCONNECTION_H
#define TALLYRA_TYBUSCONNECTION_H

#include "ITYBus.h"
#include "ITYClock.h"
#include "TYConnectionSocket.h"
#include "TYMessagePtr.h"

/// A private connection to the system bus for use in a host's process: each call has a deadline, no
/// messages accumulate, and the class uses no socket but its own. The source explains how.
///
/// Life: Open once, then calls, then Close. Close does not unreference the connection, so libdbus
/// keeps its memory. The destructor does not close.
///
/// Threads: one at a time; the owner serialises. Several connections may run Open at the same time.
class CTYBusConnection {
  public:
    CTYBusConnection(ITYBus& bus, ITYClock& clock);
    CTYBusConnection(const CTYBusConnection&) = delete;
    CTYBusConnection& operator=(const CTYBusConnection&) = delete;

    /// Connects to the system bus, like dbus_bus_get_private, and calls Hello. Hello waits at most
    /// TYLimits::kReplyTimeoutMs; connecting has no time limit.
    /// @return the connection, which this object keeps; null, with the error set, on failure
    DBusConnection* Open(DBusError* pError);

    /// Closes the connection if its socket is still ours. No call may follow.
    void Close();

    /// Like dbus_bus_name_has_owner, but waits at most TYLimits::kReplyTimeoutMs.
    /// @return false also when the bus does not answer
    bool NameHasOwner(const char* pName);

    /// Like dbus_message_new_method_call.
    /// @return null on allocation failure
    TYMessagePtr NewMethodCall(const char* pDestination, const char* pPath, const char* pInterface,
                               const char* pMember);

    /// Like dbus_connection_send_with_reply_and_block, but never longer than its timeout.
    /// @param timeoutMs  milliseconds; negative for the default of libdbus, 25 s
    /// @return the reply; null, with the error set, on failure, timeout or an error reply
    TYMessagePtr Call(DBusMessage* pMessage, int timeoutMs, DBusError* pError);

  private:
    class CDeadline;

    DBusConnection* OpenSocket(DBusError* pError);
    bool SayHello(DBusError* pError);
    TYMessagePtr NewBusCall(const char* pMember);
    TYMessagePtr NewOwnerQuery(const char* pName);
    TYMessagePtr CallBus(const TYMessagePtr& call, int type, void* pValue, DBusError* pError);

    TYMessagePtr Exchange(DBusMessage* pMessage, const CDeadline& deadline, DBusError* pError);
    bool WriteQueued(const CDeadline& deadline);
    TYMessagePtr AwaitReply(dbus_uint32_t serial, const CDeadline& deadline);
    TYMessagePtr ReadOnceMore(dbus_uint32_t serial);
    TYMessagePtr PopReply(dbus_uint32_t serial);
    bool ReadWrite(const CDeadline& deadline);
    void SetNoReply(DBusError* pError);

    bool DropMessages();
    void Discard();

    ITYBus& m_Bus;
    ITYClock& m_Clock;
    CTYConnectionSocket m_Socket;
    DBusConnection* m_pConnection = nullptr;
};

#endif  // TALLYRA_TYBUSCONNECTION_H
