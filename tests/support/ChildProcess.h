// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_CHILDPROCESS_H
#define TALLYRA_TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

/// What a child process gets besides its arguments.
struct ChildOptions {
    /// Descriptors that the program inherits under their own numbers. All other descriptors of this
    /// process must be close-on-exec.
    std::vector<int> keepFds = {};
    /// Environment variables as "NAME=value"; they replace those of this process.
    std::vector<std::string> environment = {};
    /// Files for the standard streams; an empty path inherits the stream. Output files are
    /// truncated.
    std::filesystem::path input = {};
    std::filesystem::path output = {};
    std::filesystem::path error = {};
};

/// A program that a test runs, and that never outlives the test.
///
/// The destructor kills the program. The kernel kills it when the thread that started it ends, even
/// by a crash: start it on a thread that lasts, best the test's main thread.
///
/// Threads: none of its operations may run at the same time as another one on the same object.
class CChildProcess {
  public:
    /// Starts a program.
    /// @param arguments  the program's path (looked up in PATH when it has no slash), then its
    ///                   arguments
    /// @throws std::system_error  when fork fails. A program that cannot be executed, or a file
    ///                            that cannot be opened, makes exit code 127 instead.
    explicit CChildProcess(std::vector<std::string> arguments, const ChildOptions& options = {});
    ~CChildProcess() { Kill(); }

    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    /// @return the process identifier, also after the end
    pid_t Pid() const { return m_nPid; }

    /// Sends a signal; does nothing once the program has been waited for.
    void Signal(int nSignal) const;

    /// Stops the program with SIGSTOP and waits until the kernel shows it as stopped.
    void Pause() const;
    /// Continues a paused program.
    void Resume() const { Signal(SIGCONT); }

    /// Waits for the end.
    /// @return the exit code, 128 plus the signal that killed it, or nothing when it still runs
    ///         after that time
    std::optional<int> WaitForExit(std::chrono::milliseconds within);

    /// Kills the program, paused or not, and waits for it.
    void Kill();

  private:
    /// @return whether the program has ended and was waited for
    bool Reap(int nOptions);

    pid_t m_nPid = -1;
    std::optional<int> m_exitCode;
};

/// Stops any process with SIGSTOP and waits until the kernel shows it as stopped.
void PauseProcess(pid_t pid);

#endif  // TALLYRA_TESTS_SUPPORT_CHILDPROCESS_H
