// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_PROC_H
#define TALLYRA_TESTS_SUPPORT_PROC_H

#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

// What /proc tells about a process.

/// The fields of /proc/PID/stat that tests read.
struct ProcStat {
    char state = 0;         ///< R, S, D, Z, T (stopped), ...; 0 when the process does not exist
    double cpuSeconds = 0;  ///< user and system time
};

inline ProcStat ReadProcStat(pid_t pid) {
    constexpr int kFieldsBetween = 10;
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    ProcStat stat;
    std::string ignored;
    // The second field is the program's name in parentheses, which may contain blanks.
    std::getline(file, ignored, ')') >> stat.state;
    for (int i = 0; i < kFieldsBetween; ++i) {
        file >> ignored;
    }
    double user = 0;
    double system = 0;
    file >> user >> system;
    stat.cpuSeconds = (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
    return stat;
}

/// @param name  names a line of /proc/PID/status in KiB, such as "VmRSS"
/// @throws std::runtime_error  when there is no such line
inline long ReadProcKib(pid_t pid, const std::string& name) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string word;
        long value = 0;
        if (words >> word >> value && word == name + ":") {
            return value;
        }
    }
    throw std::runtime_error("process " + std::to_string(pid) + " has no " + name);
}

/// @param task  the folder of a thread, such as "/proc/thread-self"
/// @return whether the thread blocks the signal
inline bool ThreadBlocks(const std::string& task, int signal) {
    std::ifstream status(task + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigBlk:")) {
            const std::uint64_t mask = std::stoull(line.substr(7), nullptr, 16);
            return (mask >> (signal - 1) & 1U) != 0;
        }
    }
    throw std::runtime_error("no thread " + task);
}

#endif  // TALLYRA_TESTS_SUPPORT_PROC_H
