// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYMESSAGEPTR_H
#define TALLYRA_TYMESSAGEPTR_H

#include <dbus/dbus.h>

#include <memory>

struct TYUnrefMessage {
    void operator()(DBusMessage* pMessage) const { dbus_message_unref(pMessage); }
};

/// Owns one reference to a libdbus message.
using TYMessagePtr = std::unique_ptr<DBusMessage, TYUnrefMessage>;

#endif  // TALLYRA_TYMESSAGEPTR_H
