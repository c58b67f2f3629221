// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_CHILD_H
#define TALLYRA_BENCHMARKS_HARNESS_CHILD_H

#include <sys/types.h>

#include <functional>
#include <vector>

/// Runs a measurement in a child process, without this process's used memory, threads and
/// connections. Create it while this process has only one thread.
///
/// Threads: one.
class CChild {
  public:
    /// @param measure  runs in the child and returns at most 500 values
    explicit CChild(const std::function<std::vector<double>()>& measure);
    ~CChild();
    CChild(const CChild&) = delete;
    CChild& operator=(const CChild&) = delete;

    /// Waits until the child exits.
    /// @throws std::runtime_error  if it fails; it prints the reason to standard error
    std::vector<double> Result();

  private:
    pid_t m_nPid = -1;
    int m_nFd = -1;
};

#endif  // TALLYRA_BENCHMARKS_HARNESS_CHILD_H
