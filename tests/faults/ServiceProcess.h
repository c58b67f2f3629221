// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FAULTS_SERVICEPROCESS_H
#define TALLYRA_TESTS_FAULTS_SERVICEPROCESS_H

#include "ChildProcess.h"
#include "platform/TemporaryFolder.h"

#include <chrono>
#include <csignal>
#include <memory>
#include <string>

/// A receiving service in a process of its own, which can be halted and killed as any other. It is
/// killed with the object at the latest.
class CServiceProcess {
  public:
    /// Starts it on a bus.
    /// @throws std::runtime_error  when it does not come to own its name
    explicit CServiceProcess(const std::string& address);

    /// Halts it: it keeps its name, and calls to it wait.
    void Halt();
    void Resume() { m_Process->Signal(SIGCONT); }
    void Kill() { m_Process->Kill(); }

    /// @return whether so many records came before the time was over
    bool WaitForRecords(int count, std::chrono::milliseconds within) const;
    /// @return how many records have come
    int Records() const;

  private:
    CTemporaryFolder m_Folder;
    std::unique_ptr<CChildProcess> m_Process;
};

#endif  // TALLYRA_TESTS_FAULTS_SERVICEPROCESS_H
