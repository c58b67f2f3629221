// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LATENCYSAMPLES_H
#define TALLYRA_BENCHMARKS_LATENCYSAMPLES_H

#include <cstdint>

// What the player of "tallyra-bench-latency" leaves in its file, and the benchmark reads from it.

/// The calls that are measured.
enum class MeasuredCall : std::uint32_t { EVENT, ERROR, EXECUTE };

constexpr const char* kMeasuredCallNames[] = {"SendMediaEvent", "SendMediaError", "Execute"};

/// What stands before the samples.
struct LatencyHeader {
    std::int64_t urgent;     ///< whether the player's thread had a real-time priority
    std::int64_t executed;   ///< calls of Execute that were taken, the first ones included
    std::int64_t logLines;   ///< lines that the measured calls logged on the player's thread
    std::int64_t logMicros;  ///< time that these took
};

/// One call.
struct LatencySample {
    MeasuredCall call;
    std::uint32_t nanos;  ///< without the time spent in the log
    std::uint32_t waits;  ///< times that the thread waited for something, but for the log
};

#endif  // TALLYRA_BENCHMARKS_LATENCYSAMPLES_H
