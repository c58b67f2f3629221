// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_PRIVATEBUS_H
#define TALLYRA_TESTS_SUPPORT_PRIVATEBUS_H

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>

class CBroker;
class CChildProcess;

/// A message bus of a test's own: a dbus-daemon with its own address, configuration and folder,
/// on which everybody may own any name and send anything. It has the type of a system bus. With
/// TALLYRA_TEST_BUS=dbus-broker in the environment it is a dbus-broker instead.
///
/// The bus ends with the object, and also when the thread that made it (or that restarted it) ends:
/// make it on the test's main thread. Every operation is bounded in time.
///
/// Errors: std::runtime_error, with a text that says what went wrong.
class CPrivateBus {
  public:
    /// Starts a bus. It takes connections when the constructor returns.
    CPrivateBus();
    /// Kills the bus and removes its folder.
    ~CPrivateBus();

    CPrivateBus(const CPrivateBus&) = delete;
    CPrivateBus& operator=(const CPrivateBus&) = delete;

    /// @return the address for clients; it stays the same over Stop and Restart
    const std::string& Address() const { return m_strAddress; }

    /// @return the process identifier of the bus, -1 while it is stopped
    pid_t Pid() const;

    /// Makes this bus the system bus of this process and of those that it starts, as
    /// DBUS_SYSTEM_BUS_ADDRESS does. libdbus reads that once in a process, when it first connects.
    void BecomeSystemBus() const;

    /// Kills the bus: its clients are disconnected. Does nothing when it is stopped already.
    void Stop();

    /// Starts the bus again on the same address, after killing it if it runs.
    void Restart();

    /// Halts the bus: messages to it wait, and so do new connections.
    void Pause();

    /// Lets a halted bus go on.
    void Resume();

  private:
    void Launch();
    void LaunchDaemon();
    std::filesystem::path SocketPath() const { return m_folder / "bus"; }

    std::filesystem::path m_folder;
    std::string m_strAddress;
    // One of the two, and neither while the bus is stopped.
    std::unique_ptr<CChildProcess> m_pDaemon;
    std::unique_ptr<CBroker> m_pBroker;
};

#endif  // TALLYRA_TESTS_SUPPORT_PRIVATEBUS_H
