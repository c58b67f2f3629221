// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Processor.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string>

namespace {

/// @return the number after a label, as in "VmRSS:  1234 kB"
double Labelled(const std::string& path, const std::string& label) {
    std::ifstream file(path);
    std::string word;
    while (file >> word) {
        double value = 0;
        if (word == label && file >> value) {
            return value;
        }
        file.clear();
        file.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    throw std::runtime_error(path + " has no " + label);
}

constexpr double kKib = 1024;

}  // namespace

std::map<pid_t, ThreadUse> ThreadsOf(pid_t process) {
    std::map<pid_t, ThreadUse> threads;
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        try {
            ThreadUse use;
            std::ifstream(task.path() / "schedstat") >> use.nanoseconds;
            use.switches = static_cast<std::int64_t>(
                Labelled(task.path() / "status", "voluntary_ctxt_switches:"));
            threads[std::stoi(task.path().filename())] = use;
        } catch (const std::runtime_error&) {
            // The thread has just exited.
            continue;
        }
    }
    return threads;
}

double ProcessorTimeOf(pid_t process) {
    double sum = 0;
    for (const auto& [thread, use] : ThreadsOf(process)) {
        sum += use.nanoseconds;
    }
    return sum;
}

double ThreadTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

double ResidentBytes() {
    return Labelled("/proc/self/status", "VmRSS:") * kKib;
}

double AvailableBytes() {
    return Labelled("/proc/meminfo", "MemAvailable:") * kKib;
}
