// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LIBRARY_CHILD_H
#define TALLYRA_BENCHMARKS_LIBRARY_CHILD_H

#include <sys/types.h>

#include <functional>
#include <vector>

/// A measurement in a process of its own: memory that was used before, threads and connections are
/// not there. Make it while this process has one thread.
///
/// Threads: one.
class CChild {
  public:
    /// @param measure  runs in the child; its values are the result, at most 500
    explicit CChild(const std::function<std::vector<double>()>& measure);
    ~CChild();
    CChild(const CChild&) = delete;
    CChild& operator=(const CChild&) = delete;

    /// Waits for the child's end.
    /// @throws std::runtime_error  when it fails; it says why on standard error
    std::vector<double> Result();

  private:
    pid_t m_nPid = -1;
    int m_nFd = -1;
};

#endif  // TALLYRA_BENCHMARKS_LIBRARY_CHILD_H
