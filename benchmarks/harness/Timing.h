// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_TIMING_H
#define TALLYRA_BENCHMARKS_HARNESS_TIMING_H

#include <sys/types.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <stdexcept>
#include <thread>

using Clock = std::chrono::steady_clock;

constexpr double kNsPerMicro = 1e3;
constexpr double kNsPerMs = 1e6;
constexpr double kNsPerSecond = 1e9;

inline double NanosecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
}

/// @return nanoseconds that a clock shows, by default processor time of the calling thread
inline double ProcessorTime(clockid_t clock = CLOCK_THREAD_CPUTIME_ID) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * kNsPerSecond + static_cast<double>(time.tv_nsec);
}

/// @return processor time of a process, in nanoseconds
inline double ProcessorTimeOf(pid_t process) {
    clockid_t clock = 0;
    if (clock_getcpuclockid(process, &clock) != 0) {
        throw std::runtime_error("a measured process is gone");
    }
    return ProcessorTime(clock);
}

/// Polls until the condition is true.
/// @throws std::runtime_error  with the text `what` after two minutes
inline void Await(const std::function<bool()>& condition, const char* what) {
    const Clock::time_point deadline = Clock::now() + std::chrono::minutes(2);
    while (!condition()) {
        if (Clock::now() >= deadline) {
            throw std::runtime_error(what);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
}

#endif  // TALLYRA_BENCHMARKS_HARNESS_TIMING_H
