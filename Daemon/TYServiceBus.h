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

/// The service's connections to the bus. The constructor and OwnName throw std::runtime_error with
/// a text for the operator.
///
/// Threads: one.
class CTYServiceBus {
  public:
    using Handler = std::function<TYMessagePtr(DBusMessage*)>;

    /// Connects to a bus.
    /// @param address  D-Bus address; empty for the system bus
    explicit CTYServiceBus(const std::string& address);

    /// Requests the service's name. If another process owns it, the error names that process.
    void OwnName();
    void ReleaseName();

    /// @return the credentials of a unique name; asks the bus driver and blocks at most 5 s
    TYPeerIdentity Identify(const std::string& name);

    /// @return the descriptor to poll: for reading always, for writing while HasOutput
    int Fd() const;
    bool HasOutput() const;

    /// Reads and writes without blocking, and passes each received message to the handler.
    /// @param handler  returns the reply to send, or null for none
    /// @return false once the bus has disconnected
    bool Serve(const Handler& handler);

    /// Blocks until all replies are written.
    void Flush() { dbus_connection_flush(m_pConnection.get()); }

  private:
    struct Close {
        void operator()(DBusConnection* pConnection) const;
    };

    std::string DescribeNameOwner();
    TYMessagePtr AskDriver(const char* pMethod, const char* pName);

    std::unique_ptr<DBusConnection, Close> m_pConnection;
    // Calls the bus driver. On m_pConnection its answers would queue behind messages of players.
    std::unique_ptr<DBusConnection, Close> m_pInquiries;
    std::string m_strBusId;
};

#endif  // TALLYRA_TYSERVICEBUS_H
