// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_STRESS_LOAD_SERVICEPROCESS_H
#define TALLYRA_TESTS_STRESS_LOAD_SERVICEPROCESS_H

#include "BatchSender.h"
#include "ChildProcess.h"

#include <chrono>
#include <string>
#include <vector>

/// The collection service as a process of its own, which does not outlive the object.
///
/// Threads: the one that made it.
class CServiceProcess {
  public:
    /// Starts it. Any player may send any number of records.
    /// @param program  its path
    /// @param options  beside the address of the bus and the rate
    CServiceProcess(const std::string& program, const std::string& address,
                    const std::vector<std::string>& options);

    pid_t Pid() const { return m_Process.Pid(); }

    /// Waits until it can be called.
    /// @throws std::runtime_error  when it ends instead, or takes too long
    void WaitUntilServing(CBatchSender& bus);

    /// Ends it without giving it a chance to do anything about it.
    void Kill() { m_Process.Kill(); }

    /// Tells it to end and waits for that.
    /// @throws std::runtime_error  when it takes too long, or fails
    void Terminate();

    /// @return seconds of processor time that it has used
    double CpuSeconds() const;

    /// @return a figure of its memory in KiB, as in "VmRSS"
    long MemoryKib(const std::string& name) const;

  private:
    CChildProcess m_Process;
};

#endif  // TALLYRA_TESTS_STRESS_LOAD_SERVICEPROCESS_H
