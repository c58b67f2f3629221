// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LIBRARY_PROCESSOR_H
#define TALLYRA_BENCHMARKS_LIBRARY_PROCESSOR_H

#include <sys/types.h>

#include <cstdint>
#include <map>

/// What a thread has used so far, as the kernel counts it.
struct ThreadUse {
    double nanoseconds = 0;     ///< of processor time
    std::int64_t switches = 0;  ///< times that it went to sleep, and so was woken
};

/// @return each thread of a process that exists now, by its identifier: older ones first
/// @throws std::runtime_error  when there is no such process
std::map<pid_t, ThreadUse> ThreadsOf(pid_t process);

/// @return processor time of all threads that a process has now, in nanoseconds
double ProcessorTimeOf(pid_t process);

/// @return processor time of the calling thread, in nanoseconds
double ThreadTime();

/// @return resident memory of this process, in bytes
double ResidentBytes();

/// @return memory of the machine that can be had without swapping, in bytes
double AvailableBytes();

#endif  // TALLYRA_BENCHMARKS_LIBRARY_PROCESSOR_H
