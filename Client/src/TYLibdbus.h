// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYLIBDBUS_H
#define TALLYRA_TYLIBDBUS_H

#include "ITYBus.h"

/// The bus as libdbus reaches it.
class CTYLibdbus : public ITYBus {
  public:
    bool InitThreads() override;
    DBusConnection* GetPrivate(DBusError* pError) override;
    bool NameHasOwner(DBusConnection* pConnection, const char* pName) override;
    DBusMessage* NewMethodCall(const char* pDestination, const char* pPath, const char* pInterface,
                               const char* pMember) override;
    DBusMessage* SendWithReplyAndBlock(DBusConnection* pConnection, DBusMessage* pMessage,
                                       int timeoutMs, DBusError* pError) override;
    void Close(DBusConnection* pConnection) override;
};

#endif  // TALLYRA_TYLIBDBUS_H
