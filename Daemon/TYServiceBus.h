// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSERVICEBUS_H
#define TALLYRA_TYSERVICEBUS_H

#include "TYMessagePtr.h"
#include "TYPeerIdentity.h"

#include <dbus/dbus.h>

#include <functional>
#include <memory>
#include <string>

/// The service's connections to the bus. Errors are std::runtime_error, with a text for the user.
///
/// Threads: one.
class CTYServiceBus {
  public:
    using Handler = std::function<TYMessagePtr(DBusMessage*)>;

    /// Connects.
    /// @param address  of the bus; empty for the system bus
    explicit CTYServiceBus(const std::string& address);

    /// Takes the service's name. When another has it, the error says who.
    void OwnName();
    void ReleaseName();

    /// @return what the bus driver knows about a unique name
    TYPeerIdentity Identify(const std::string& name);

    /// @return the descriptor to wait on, for reading, and for writing while HasOutput
    int Fd() const;
    bool HasOutput() const;

    /// Reads and writes what can be without waiting, and hands each message that came to the
    /// handler, which returns the reply to it or null.
    /// @return whether the connection still stands
    bool Serve(const Handler& handler);

    /// Waits until everything was written.
    void Flush() { dbus_connection_flush(m_pConnection.get()); }

  private:
    struct Close {
        void operator()(DBusConnection* pConnection) const;
    };

    std::string HolderOfTheName();
    TYMessagePtr AskDriver(const char* pMethod, const char* pName);

    std::unique_ptr<DBusConnection, Close> m_pConnection;
    // The bus driver is asked on a connection of its own: its answers would have to wait behind all
    // that players have sent by then.
    std::unique_ptr<DBusConnection, Close> m_pInquiries;
    std::string m_strBusId;
};

#endif  // TALLYRA_TYSERVICEBUS_H
