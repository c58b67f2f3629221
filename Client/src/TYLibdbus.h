// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYLIBDBUS_H
#define TALLYRA_TYLIBDBUS_H

#include "ITYBus.h"

/// libdbus and the system, unchanged: each operation forwards to one function.
class CTYLibdbus : public ITYBus {
  public:
    bool InitThreads() override;
    void SetChangeSigpipe(bool change) override;
    DBusConnection* OpenPrivate(const char* pAddress, DBusError* pError) override;
    bool SetUniqueName(DBusConnection* pConnection, const char* pName) override;
    bool IsConnected(DBusConnection* pConnection) override;
    bool IsAuthenticated(DBusConnection* pConnection) override;
    bool HasMessagesToSend(DBusConnection* pConnection) override;
    bool Send(DBusConnection* pConnection, DBusMessage* pMessage, dbus_uint32_t* pSerial) override;
    bool ReadWrite(DBusConnection* pConnection, int timeoutMs) override;
    DBusMessage* PopMessage(DBusConnection* pConnection) override;
    void Close(DBusConnection* pConnection) override;
    void Unref(DBusConnection* pConnection) override;
    DBusMessage* NewMethodCall(const char* pDestination, const char* pPath, const char* pInterface,
                               const char* pMember) override;
    bool AppendString(DBusMessage* pMessage, const char* pText) override;
    int GetSocket(DBusConnection* pConnection) override;
    bool Stat(int socket, struct stat* pStatus) override;
    int Unread(int socket) override;
    void Poll(pollfd* pWaited, int timeoutMs) override;
};

#endif  // TALLYRA_TYLIBDBUS_H
