// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_BROKER_H
#define TALLYRA_TESTS_SUPPORT_BROKER_H

#include <sys/types.h>

#include <filesystem>
#include <memory>

class CChildProcess;

/// A dbus-broker with the launcher that feeds it, as systemd starts them: the socket comes from
/// outside. The launcher gives up on a machine without a journal to log to.
class CBroker {
  public:
    /// Starts both. Connections are taken when the constructor returns.
    /// @param configuration  a configuration file as dbus-daemon has it
    /// @param socketPath     where it listens; must not exist
    /// @throws std::runtime_error  when it does not start
    CBroker(const std::filesystem::path& configuration, const std::filesystem::path& socketPath);
    /// Kills both.
    ~CBroker();

    CBroker(const CBroker&) = delete;
    CBroker& operator=(const CBroker&) = delete;

    /// @return the process that carries the messages
    pid_t Pid() const { return m_nBroker; }

  private:
    std::unique_ptr<CChildProcess> m_pLauncher;
    pid_t m_nBroker = -1;
};

#endif  // TALLYRA_TESTS_SUPPORT_BROKER_H
