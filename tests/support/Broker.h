// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_BROKER_H
#define TALLYRA_TESTS_SUPPORT_BROKER_H

#include <sys/types.h>

#include <filesystem>
#include <memory>

class CChildProcess;

/// A dbus-broker and its launcher, started with a listening socket as systemd does. The launcher
/// fails on a machine without a journal.
class CBroker {
  public:
    /// Starts both. The broker accepts connections when the constructor returns.
    /// @param configuration  names a configuration file in dbus-daemon's format
    /// @param socketPath     names the socket to create; must not exist
    /// @throws std::runtime_error  when the broker does not start
    CBroker(const std::filesystem::path& configuration, const std::filesystem::path& socketPath);
    /// Kills both.
    ~CBroker();

    CBroker(const CBroker&) = delete;
    CBroker& operator=(const CBroker&) = delete;

    /// @return the process of dbus-broker, not of the launcher
    pid_t Pid() const { return m_nBroker; }

  private:
    std::unique_ptr<CChildProcess> m_pLauncher;
    pid_t m_nBroker = -1;
};

#endif  // TALLYRA_TESTS_SUPPORT_BROKER_H
