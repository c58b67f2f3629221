// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LIBRARY_STAGE_H
#define TALLYRA_BENCHMARKS_LIBRARY_STAGE_H

#include "PrivateBus.h"
#include "Sink.h"

#include <tallyra/ITYDataCollector.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

/// The URL that every record of a measurement has, and about as long as a player's.
extern const std::string kUrl;

/// All that a player finds around it: settings that switch collection on, its package's metadata, a
/// log that is off, a system bus, and a service that counts. One for a process, made before any
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

/// A player with a collector of its own, which reports events and counts the records that it
/// causes.
///
/// Threads: one at a time. The counts of all players of a stage are one, as the service's is.
class CPlayer {
  public:
    /// Returns when the collector is ready to send.
    explicit CPlayer(const CStage& stage);

    /// Begins a playback: one record.
    void Begin();
    /// One record, from which nothing is derived.
    void Send() {
        m_pCollector->SendMediaEvent(TY_EVENT_RESUME, 0, 0);
        ++m_nSent;
    }
    /// Ends the playback, which has all that waits delivered: two records.
    void End();
    /// Begins and ends playbacks until every record of every player was accepted: a wake-up can be
    /// lost, and another one is as good.
    /// @throws std::runtime_error  when the service does not get them
    void AwaitAccepted();

    /// @return records that the service has accepted of this and all other players
    std::int64_t Accepted() const { return m_Stage.Sink().Count().records - s_nForeign; }
    /// @return records that all players have caused
    static std::int64_t Caused() { return s_nCaused + 0; }
    /// Has those that were sent since the last time counted.
    void Note();

    /// Says that somebody else has had so many records accepted.
    static void NoteForeign(std::int64_t records) { s_nForeign += records; }

  private:
    static std::atomic<std::int64_t> s_nCaused;
    static std::atomic<std::int64_t> s_nForeign;

    const CStage& m_Stage;
    std::unique_ptr<ITYDataCollector> m_pCollector;
    std::int64_t m_nSent = 0;
};

/// Looks every 20 µs or so until it is true.
/// @throws std::runtime_error  with `what` when it does not become true within 30 s
void Await(const std::function<bool()>& condition, const char* what);

#endif  // TALLYRA_BENCHMARKS_LIBRARY_STAGE_H
