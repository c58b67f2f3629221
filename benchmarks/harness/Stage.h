// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_STAGE_H
#define TALLYRA_BENCHMARKS_HARNESS_STAGE_H

#include "PrivateBus.h"
#include "Sink.h"

#include <tallyra/ITYDataCollector.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

/// The URL of each record, about as long as a player's.
extern const std::string kUrl;

/// The environment of a player: settings that enable collection, its package's metadata, logging
/// switched off, a system bus, and a counting service. Create one in a process, before the first
/// thread.
class CStage {
  public:
    CStage();
    CStage(const CStage&) = delete;
    CStage& operator=(const CStage&) = delete;

    const CPrivateBus& Bus() const { return m_Bus; }
    const CSink& Sink() const { return m_Sink; }

  private:
    CPrivateBus m_Bus;
    CSink m_Sink;
};

/// A player with a collector, which reports events and counts the records that they cause.
///
/// Threads: one at a time. All players share one count, as the service has only one.
class CPlayer {
  public:
    /// Returns when the collector is ready to send.
    explicit CPlayer(const CStage& stage);

    /// Starts a playback: one record.
    void Begin();
    /// Reports an event that becomes one record.
    void Send() {
        m_pCollector->SendMediaEvent(TY_EVENT_RESUME, 0, 0);
        ++m_nSent;
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
    static std::int64_t Caused() { return s_nCaused + 0; }
    /// Adds the records since the last call to the count.
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

/// Polls about every 20 µs until the condition is true.
/// @throws std::runtime_error  with the text `what` after 30 s
void Await(const std::function<bool()>& condition, const char* what);

#endif  // TALLYRA_BENCHMARKS_HARNESS_STAGE_H
