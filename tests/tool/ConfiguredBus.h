// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_TOOL_CONFIGUREDBUS_H
#define TALLYRA_TESTS_TOOL_CONFIGUREDBUS_H

#include "Broker.h"
#include "ChildProcess.h"
#include "TemporaryFolder.h"

#include <memory>
#include <string>

/// A bus of a test's own that refuses as a system's does: nobody owns a name or calls a method that
/// no policy allows. Other users may connect to it. With TALLYRA_TEST_BUS=dbus-broker in the
/// environment it is a dbus-broker.
///
/// Make it on the test's main thread: it ends with that.
class CConfiguredBus {
  public:
    /// Starts the bus.
    /// @param more  what its configuration has behind the rules of a system's bus
    /// @param type  "system", or "session" where services are started without the help of a system
    explicit CConfiguredBus(const std::string& more, const std::string& type = "system");

    const std::string& Address() const { return m_strAddress; }
    static bool IsBroker();

  private:
    void Launch(const std::string& configuration);

    CTemporaryFolder m_Folder;
    std::string m_strAddress;
    std::unique_ptr<CChildProcess> m_pDaemon;
    std::unique_ptr<CBroker> m_pBroker;
};

#endif  // TALLYRA_TESTS_TOOL_CONFIGUREDBUS_H
