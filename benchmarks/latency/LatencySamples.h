// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LATENCY_LATENCYSAMPLES_H
#define TALLYRA_BENCHMARKS_LATENCY_LATENCYSAMPLES_H

#include <cstdint>

// The file that "tallyra-latency-player" writes and "tallyra-bench-latency" reads.

/// The measured calls.
enum class MeasuredCall : std::uint32_t { EVENT, ERROR, EXECUTE };

constexpr const char* kMeasuredCallNames[] = {"SendMediaEvent", "SendMediaError", "Execute"};

/// Precedes the samples.
struct LatencyHeader {
    std::int64_t urgent;     ///< whether the player's thread had a real-time priority
    std::int64_t executed;   ///< calls of Execute that returned true, including warm-up
    std::int64_t logLines;   ///< lines that the measured calls logged on the player's thread
    std::int64_t logMicros;  ///< time that these lines took
};

/// One measured call.
struct LatencySample {
    MeasuredCall call;
    std::uint32_t nanos;  ///< without the time spent logging
    std::uint32_t waits;  ///< times that the thread blocked, except while logging
};

#endif  // TALLYRA_BENCHMARKS_LATENCY_LATENCYSAMPLES_H
