// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYBUSCONNECTION_H
#define TALLYRA_TYBUSCONNECTION_H

#include "ITYBus.h"
#include "ITYClock.h"
#include "TYConnectionSocket.h"
#include "TYMessagePtr.h"

/// A private connection to the system bus, safe in a process that belongs to somebody else: each
/// call ends in time, nothing piles up, and only our own socket is touched.
///
/// Life: Open once, then calls, then Close. Close leaves the connection's memory to libdbus, as the
/// service link promises; a destructor would have nothing to do.
///
/// Threads: one at a time; the owner serialises. Open may run on several connections at once.
class CTYBusConnection {
  public:
    CTYBusConnection(ITYBus& bus, ITYClock& clock);
    CTYBusConnection(const CTYBusConnection&) = delete;
    CTYBusConnection& operator=(const CTYBusConnection&) = delete;

    /// Connects to the system bus, like dbus_bus_get_private, and says hello. The hello waits at
    /// most TYLimits::kReplyTimeoutMs; connecting itself has no limit.
    /// @return null, with the error set, on failure
    DBusConnection* Open(DBusError* pError);

    /// Closes the connection if its socket is still ours. No call may follow.
    void Close();

    /// Like dbus_bus_name_has_owner; waits at most TYLimits::kReplyTimeoutMs.
    bool NameHasOwner(const char* pName);

    /// Like dbus_message_new_method_call.
    TYMessagePtr NewMethodCall(const char* pDestination, const char* pPath, const char* pInterface,
                               const char* pMember);

    /// Like dbus_connection_send_with_reply_and_block, but never longer than its timeout.
    /// @param timeoutMs  negative: the default of libdbus, 25 s
    TYMessagePtr Call(DBusMessage* pMessage, int timeoutMs, DBusError* pError);

  private:
    class CDeadline;

    DBusConnection* OpenSocket(DBusError* pError);
    bool SayHello(DBusError* pError);
    TYMessagePtr NewBusCall(const char* pMember);
    TYMessagePtr NewOwnerQuery(const char* pName);
    TYMessagePtr CallBus(const TYMessagePtr& call, int type, void* pValue, DBusError* pError);

    TYMessagePtr Exchange(DBusMessage* pMessage, const CDeadline& deadline, DBusError* pError);
    bool WriteWhatIsQueued(const CDeadline& deadline);
    TYMessagePtr AwaitReply(dbus_uint32_t serial, const CDeadline& deadline);
    TYMessagePtr TakeLastLook(dbus_uint32_t serial);
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
