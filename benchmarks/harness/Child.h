// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_CHILD_H
#define TALLYRA_BENCHMARKS_HARNESS_CHILD_H

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

/// @return an object that this process shares with the processes that it forks. It is never freed.
template <class T>
T& Share() {
    void* pMemory =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pMemory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    return *new (pMemory) T();
}

/// A forked process, which the destructor kills. Create it while this process has only one thread.
///
/// Threads: one.
class CFork {
  public:
    /// @param body  runs in the child; an exception is printed and makes it fail
    explicit CFork(const std::function<void()>& body) : m_nPid(fork()) {
        if (m_nPid < 0) {
            throw std::system_error(errno, std::generic_category(), "fork");
        }
        if (m_nPid == 0) {
            Run(body);
        }
    }
    ~CFork() {
        if (m_nPid > 0) {
            kill(m_nPid, SIGKILL);
            waitpid(m_nPid, nullptr, 0);
        }
    }
    CFork(const CFork&) = delete;
    CFork& operator=(const CFork&) = delete;

    pid_t Pid() const { return m_nPid; }

    /// Waits until the child exits.
    /// @throws std::runtime_error  if it failed
    void Join() {
        int status = 0;
        waitpid(std::exchange(m_nPid, -1), &status, 0);
        if (status != 0) {
            throw std::runtime_error("a measurement in a child process failed");
        }
    }

  private:
    [[noreturn]] static void Run(const std::function<void()>& body) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        try {
            body();
            _exit(0);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
            _exit(1);
        }
    }

    pid_t m_nPid;
};

/// Runs a measurement in a forked process, without this process's used memory, threads and
/// connections.
class CChild {
  public:
    /// @param measure  returns at most 20,000 values
    explicit CChild(const std::function<std::vector<double>()>& measure)
        : m_Fork([this, &measure] {
              const std::vector<double> values = measure();
              if (values.size() > m_Shared.values.size()) {
                  throw std::length_error("too many values");
              }
              m_Shared.count = values.size();
              std::ranges::copy(values, m_Shared.values.begin());
          }) {}

    /// Waits until the child exits.
    /// @throws std::runtime_error  if it failed; it printed the reason
    std::vector<double> Result() {
        m_Fork.Join();
        return {m_Shared.values.data(), m_Shared.values.data() + m_Shared.count};
    }

  private:
    struct Values {
        std::size_t count;
        std::array<double, 20'000> values;
    };

    Values& m_Shared = Share<Values>();
    CFork m_Fork;
};

#endif  // TALLYRA_BENCHMARKS_HARNESS_CHILD_H
