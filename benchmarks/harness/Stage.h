// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_STAGE_H
#define TALLYRA_BENCHMARKS_HARNESS_STAGE_H

#include "Child.h"
#include "PrivateBus.h"
#include "TemporaryFolder.h"
#include "Timing.h"
#include "Wire.h"

#include <tallyra/ITYDataCollector.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

/// A service that accepts and counts records, which is the least any service can do. It is a forked
/// process on bare libdbus, so its memory and processor time are not those of the measured program.
/// Create it before the first thread.
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
    explicit CSink(const std::string& address);

    const Counters& Count() const { return m_Counters; }
    pid_t Pid() const { return m_Process.Pid(); }

  private:
    Counters& m_Counters = Share<Counters>();
    const CFork m_Process;
};

/// The environment of a player: settings that enable collection, the metadata of its package (so
/// that looking up its version costs the same on every machine), logging switched off, a system
/// bus, and a counting service. Create one in a process, before the first thread.
class CStage {
  public:
    CStage();

    const CPrivateBus& Bus() const { return m_Bus; }
    const CSink& Sink() const { return m_Sink; }

  private:
    const CTemporaryFolder m_Folder;
    const CPrivateBus m_Bus;
    const CSink m_Sink;
};

/// A player with a collector, which reports events and counts the records that they cause.
///
/// Threads: one at a time. All players share one count, as the service has only one.
class CPlayer {
  public:
    /// Returns when the collector is ready to send.
    explicit CPlayer(const CStage& stage);

    ITYDataCollector& Collector() { return *m_pCollector; }
    /// Counts records that calls of the collector cause.
    void Count(std::int64_t records) { m_nSent += records; }

    /// Starts a playback: one record.
    void Begin();
    /// Reports an event that becomes one record.
    void Send() {
        m_pCollector->SendMediaEvent(TY_EVENT_RESUME, 0, 0);
        Count(1);
    }
    /// Stops the playback, which flushes the queue: two records.
    void End();
    /// Blocks until the service has accepted all records of all players. If a wake-up is lost, it
    /// starts and stops another playback.
    /// @throws std::runtime_error  if the service does not get them
    void AwaitAccepted();

    /// @return records of all players that the service has accepted
    std::int64_t Accepted() const { return m_Stage.Sink().Count().records - s_nForeign; }
    /// @return records that all players have caused
    static std::int64_t Caused() { return s_nCaused; }
    /// Adds the records since the last call to those that all players have caused.
    void Note();

    /// Excludes records that another sender had accepted.
    static void NoteForeign(std::int64_t records) { s_nForeign += records; }

  private:
    static std::atomic<std::int64_t> s_nCaused;
    static std::atomic<std::int64_t> s_nForeign;

    const CStage& m_Stage;
    std::unique_ptr<ITYDataCollector> m_pCollector;
    std::int64_t m_nSent = 0;
};

#endif  // TALLYRA_BENCHMARKS_HARNESS_STAGE_H
