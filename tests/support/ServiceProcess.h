// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_SERVICEPROCESS_H
#define TALLYRA_TESTS_SUPPORT_SERVICEPROCESS_H

#include "ChildProcess.h"
#include "Eventually.h"
#include "TemporaryFolder.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// tallyra-service or tallyra-receiver in a process of its own. The destructor kills it.
///
/// Threads: the one that created it.
class CServiceProcess {
  public:
    /// Starts the program. It need not be ready when the constructor returns.
    /// @param program  names the program file
    /// @param address  names the bus; becomes the option --address
    /// @param more     holds the program's other arguments
    /// @param options  may redirect standard error, pass descriptors and set the environment;
    ///                 standard output goes to the file that Output() reads
    CServiceProcess(const std::string& program, const std::string& address,
                    const std::vector<std::string>& more = {}, const ChildOptions& options = {});
    ~CServiceProcess();
    CServiceProcess(const CServiceProcess&) = delete;
    CServiceProcess& operator=(const CServiceProcess&) = delete;

    /// Waits until the program owns its name and answers calls: tallyra-service tells the service
    /// manager's socket, tallyra-receiver prints a line.
    /// @return false when it ended instead, or was not ready within the patience
    bool BecomesReady();
    /// As BecomesReady().
    /// @throws std::runtime_error  instead of returning false
    void WaitUntilReady();

    pid_t Pid() const { return m_Process.Pid(); }
    void Signal(int nSignal) const { m_Process.Signal(nSignal); }
    /// Stops the process with SIGSTOP: it keeps its name, and calls to it wait.
    void Pause() const { m_Process.Pause(); }
    void Resume() const { m_Process.Resume(); }
    void Kill() { m_Process.Kill(); }
    std::optional<int> WaitForExit(std::chrono::milliseconds within = kPatience) {
        return m_Process.WaitForExit(within);
    }

    /// Sends SIGTERM and waits for the end.
    /// @throws std::runtime_error  when it does not end with status 0 within the patience
    void Terminate();

    /// @return what the program has printed so far
    std::string Output() const { return m_Folder.Read("output"); }

  private:
    bool HasSaidReady();

    CTemporaryFolder m_Folder;
    int m_nNotifyFd;
    bool m_bReady = false;
    CChildProcess m_Process;
};

#endif  // TALLYRA_TESTS_SUPPORT_SERVICEPROCESS_H
