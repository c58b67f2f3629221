// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LATENCY_LATENCYPLAYER_H
#define TALLYRA_BENCHMARKS_LATENCY_LATENCYPLAYER_H

#include "Timing.h"

#include <array>
#include <atomic>
#include <cstdint>

inline constexpr std::array kCallNames = {"SendMediaEvent", "SendMediaError", "Execute"};
constexpr int kMostCalls = 9000;
constexpr int kFirstCode = 100;
constexpr int kCodes = 50;

/// The steps of a round, in this order. The first, third and last are the benchmark's to announce.
enum class Step { NONE, SERVICE_RUNS, DELIVERS, MEASURE, MEASURED, FINISH };

/// A measured call.
struct LatencySample {
    std::int64_t nanos;  ///< without the time spent logging
    long waits;          ///< times that the thread blocked, except while logging
};

/// What the player shares with the benchmark, which is another process. Calls take turns in the
/// order of `kCallNames`.
struct LatencyRound {
    std::atomic<Step> step;
    int calls;
    bool newMemory;          ///< whether each queued record takes new pages
    std::int64_t logMicros;  ///< that each log line takes while calls are measured
    bool urgent;             ///< whether the player's thread had a real-time priority
    int executed;            ///< calls of Execute that returned true, including warm-up
    std::int64_t logLines;   ///< lines that the player's thread logged
    std::int64_t inLogMicros;
    std::array<LatencySample, kMostCalls> samples;
};

inline void AwaitStep(const LatencyRound& round, Step step) {
    Await([&] { return round.step >= step; }, "the other process of the round does not go on",
          std::chrono::milliseconds(1));
}

/// Makes calls once a millisecond on a separate thread and measures each. Call it in a process of
/// its own. It defines the platform's log.
void PlayLatency(LatencyRound& round);

#endif  // TALLYRA_BENCHMARKS_LATENCY_LATENCYPLAYER_H
