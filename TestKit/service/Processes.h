// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_PROCESSES_H
#define TALLYRA_TESTKIT_PROCESSES_H

#include <sys/types.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

/// The processes that this one started. Those whose parents have ended become children of this
/// process (PR_SET_CHILD_SUBREAPER), so that none outlives it.
///
/// Threads: the main thread. The kernel kills the children when it ends.
class CProcesses {
  public:
    CProcesses();
    /// Kills all children and waits for them.
    ~CProcesses();
    CProcesses(const CProcesses&) = delete;
    CProcesses& operator=(const CProcesses&) = delete;

    /// Starts a program on this thread.
    /// @param environment  "NAME=value"; null-terminated
    /// @throws std::runtime_error  if it cannot be executed
    static pid_t Start(const std::vector<std::string>& command, char** environment);

    /// Kills all children except these, and waits for them.
    static void EndAllBut(std::set<pid_t> others);

  private:
    static std::set<pid_t> Children();
};

/// A message bus of its own: dbus-daemon, which allows everything.
///
/// Threads: the main thread.
class CPrivateDaemon {
  public:
    /// @throws std::runtime_error  if the bus does not start
    CPrivateDaemon();
    ~CPrivateDaemon();
    CPrivateDaemon(const CPrivateDaemon&) = delete;
    CPrivateDaemon& operator=(const CPrivateDaemon&) = delete;

    const std::string& Address() const { return m_Address; }
    pid_t Pid() const { return m_nPid; }

  private:
    void Start();

    const std::filesystem::path m_Folder;
    pid_t m_nPid = 0;
    std::string m_Address;
};

#endif  // TALLYRA_TESTKIT_PROCESSES_H
