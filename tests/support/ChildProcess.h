// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_CHILDPROCESS_H
#define TALLYRA_TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// A program that a test runs, and that never outlives it.
///
/// The program is killed when the object goes, and by the kernel when the thread that started it
/// ends, however it ends: start it on a thread that lasts, best the test's main thread.
///
/// Threads: none of its operations may run at the same time as another one on the same object.
class CChildProcess {
  public:
    /// Starts a program.
    /// @param arguments  the program's path (looked up in PATH when it has no slash), then its
    ///                   arguments
    /// @param keepFds    descriptors that it inherits under their own numbers; all others have to
    ///                   be close-on-exec
    /// @throws std::runtime_error  when no process can be made. A program that cannot be executed
    ///                             ends with exit code 127 instead.
    explicit CChildProcess(const std::vector<std::string>& arguments,
                           const std::vector<int>& keepFds = {});
    /// Kills the program if it still runs.
    ~CChildProcess();

    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    /// @return the process identifier, also after the end
    pid_t Pid() const { return m_nPid; }

    /// Sends a signal; does nothing once the program has been waited for.
    void Signal(int nSignal) const;

    /// Waits for the end.
    /// @return the exit code, 128 plus the signal that killed it, or nothing when it still runs
    ///         after that time
    std::optional<int> WaitForExit(std::chrono::milliseconds within);

    /// Ends the program at once, paused or not, and waits for it.
    void Kill();

  private:
    pid_t m_nPid = -1;
    int m_nPidFd = -1;
    std::optional<int> m_exitCode;
};

#endif  // TALLYRA_TESTS_SUPPORT_CHILDPROCESS_H
