// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_TIMING_H
#define TALLYRA_BENCHMARKS_HARNESS_TIMING_H

#include "Proc.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

using Clock = std::chrono::steady_clock;

constexpr double kNsPerMs = 1e6;
constexpr double kNsPerSecond = 1e9;

inline double NanosecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
}

/// @return processor time of the calling thread, in nanoseconds
inline double ThreadTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * kNsPerSecond + static_cast<double>(time.tv_nsec);
}

/// The use of a thread so far, as the kernel counts it.
struct ThreadUse {
    double nanoseconds = 0;     ///< of processor time
    std::int64_t switches = 0;  ///< voluntary context switches
};

/// @return the existing threads of a process by identifier, oldest first
inline std::map<pid_t, ThreadUse> ThreadsOf(pid_t process) {
    std::map<pid_t, ThreadUse> threads;
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        try {
            const pid_t thread = std::stoi(task.path().filename());
            ThreadUse use{.switches = ReadProcKib(thread, "voluntary_ctxt_switches")};
            std::ifstream(task.path() / "schedstat") >> use.nanoseconds;
            threads[thread] = use;
        } catch (const std::runtime_error&) {
            // The thread has just exited.
            continue;
        }
    }
    return threads;
}

/// @return processor time of all existing threads of a process, in nanoseconds
inline double ProcessorTimeOf(pid_t process) {
    double sum = 0;
    for (const auto& [thread, use] : ThreadsOf(process)) {
        sum += use.nanoseconds;
    }
    return sum;
}

/// Polls until the condition is true.
/// @return false if it is still false at the end of that time
inline bool BecomesTrue(const std::function<bool()>& condition, Clock::duration within,
                        Clock::duration period) {
    const Clock::time_point deadline = Clock::now() + within;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(period);
    }
    return true;
}

/// Polls until the condition is true.
/// @throws std::runtime_error  with the text `what` after two minutes
inline void Await(const std::function<bool()>& condition, const char* what,
                  Clock::duration period = std::chrono::microseconds(20)) {
    if (!BecomesTrue(condition, std::chrono::minutes(2), period)) {
        throw std::runtime_error(what);
    }
}

#endif  // TALLYRA_BENCHMARKS_HARNESS_TIMING_H
