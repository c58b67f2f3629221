// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LIBRARY_SINK_H
#define TALLYRA_BENCHMARKS_LIBRARY_SINK_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

/// A service that accepts everything and does nothing with it but count: what it costs is the least
/// that any service costs. It is a process of its own on bare libdbus, so that neither its memory
/// nor its processor time is the measured program's. Its counters are in memory that both share.
///
/// Make it before any thread: it is forked.
///
/// Threads: one; the counters can be read from any.
class CSink {
  public:
    struct Counters {
        std::atomic<std::int64_t> records;   ///< accepted, in calls of SendData
        std::atomic<std::int64_t> policies;  ///< questions for a policy that were answered
        std::atomic<bool> serving;
    };

    /// Returns when the service has its name.
    /// @throws std::runtime_error  when it does not get it
    explicit CSink(const std::string& address);
    ~CSink();
    CSink(const CSink&) = delete;
    CSink& operator=(const CSink&) = delete;

    const Counters& Count() const { return *m_pCounters; }
    pid_t Pid() const { return m_nPid; }

    /// Halts it: calls wait for their answer, until they run out of time.
    void Pause() const;
    void Resume() const;

  private:
    Counters* m_pCounters;
    pid_t m_nPid;
};

#endif  // TALLYRA_BENCHMARKS_LIBRARY_SINK_H
