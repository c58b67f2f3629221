// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_PRIVATEBUS_H
#define TALLYRA_TESTS_SUPPORT_PRIVATEBUS_H

#include "TemporaryFolder.h"

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>

class CChildProcess;

/// A message bus of a test's own: a dbus-daemon with its own address, configuration and folder. It
/// has the type of a system bus and allows every client to own any name and send any message. With
/// TALLYRA_TEST_BUS=dbus-broker in the environment it is a dbus-broker instead.
///
/// The destructor kills the bus. The kernel kills it when the thread that started or restarted it
/// ends: create it on the test's main thread. Every operation is bounded in time.
///
/// Errors: std::runtime_error, with a text that says what went wrong.
class CPrivateBus {
  public:
    /// Starts a bus. It accepts connections when the constructor returns.
    /// @param policy  configuration elements in place of the policy that allows everything
    /// @param type    "system", or "session" for a bus that starts services itself
    explicit CPrivateBus(const std::string& policy = "", const std::string& type = "system");
    /// Kills the bus and removes its folder.
    ~CPrivateBus();

    CPrivateBus(const CPrivateBus&) = delete;
    CPrivateBus& operator=(const CPrivateBus&) = delete;

    /// @return whether TALLYRA_TEST_BUS asks for dbus-broker
    static bool IsBroker();

    /// @return the address for clients; Stop and Restart do not change it
    const std::string& Address() const { return m_strAddress; }

    /// @return the process identifier of the bus, -1 while it is stopped
    pid_t Pid() const;

    /// Sets DBUS_SYSTEM_BUS_ADDRESS, so that this bus is the system bus of this process and its
    /// children. libdbus reads the variable once in a process, when it first connects.
    void BecomeSystemBus() const;

    /// Kills the bus: its clients are disconnected. Does nothing when no bus runs.
    void Stop();

    /// Kills the bus if it runs and starts it again at the same address.
    void Restart();

    /// Stops the bus process with SIGSTOP: messages and new connections wait.
    void Pause();

    /// Continues a paused bus.
    void Resume();

  private:
    void Launch();
    void LaunchDaemon(const std::string& configuration);
    void LaunchBroker(const std::string& configuration);
    std::filesystem::path SocketPath() const { return m_Folder.Path() / "bus"; }

    CTemporaryFolder m_Folder;
    const std::string m_strAddress = "unix:path=" + SocketPath().string();
    // dbus-daemon, or the launcher of the dbus-broker whose process m_nBroker is; null after Stop.
    std::unique_ptr<CChildProcess> m_pProcess;
    pid_t m_nBroker = -1;
};

#endif  // TALLYRA_TESTS_SUPPORT_PRIVATEBUS_H
