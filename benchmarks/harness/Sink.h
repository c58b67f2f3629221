// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_SINK_H
#define TALLYRA_BENCHMARKS_HARNESS_SINK_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

/// A service that accepts and counts records, which is the least any service can do. It is a forked
/// process on bare libdbus, so its memory and processor time are not those of the measured program.
/// Its counters are in shared memory. Create it before the first thread.
///
/// Threads: one; any thread may read the counters.
class CSink {
  public:
    struct Counters {
        std::atomic<std::int64_t> records;   ///< accepted, in calls of SendData
        std::atomic<std::int64_t> policies;  ///< answered calls of GetPolicyInfo
        std::atomic<bool> serving;
    };

    /// Returns when the service owns its name.
    /// @throws std::runtime_error  if it does not get it
    explicit CSink(const std::string& address);
    ~CSink();
    CSink(const CSink&) = delete;
    CSink& operator=(const CSink&) = delete;

    const Counters& Count() const { return *m_pCounters; }
    pid_t Pid() const { return m_nPid; }

    /// Stops the process (SIGSTOP): calls get no reply and time out.
    void Pause() const;
    void Resume() const;

  private:
    Counters* m_pCounters;
    pid_t m_nPid;
};

#endif  // TALLYRA_BENCHMARKS_HARNESS_SINK_H
