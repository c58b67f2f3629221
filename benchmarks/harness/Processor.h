// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_PROCESSOR_H
#define TALLYRA_BENCHMARKS_HARNESS_PROCESSOR_H

#include <sys/types.h>

#include <cstdint>
#include <map>

/// The use of a thread so far, as the kernel counts it.
struct ThreadUse {
    double nanoseconds = 0;     ///< of processor time
    std::int64_t switches = 0;  ///< voluntary context switches
};

/// @return the existing threads of a process by identifier, oldest first
/// @throws std::runtime_error  if there is no such process
std::map<pid_t, ThreadUse> ThreadsOf(pid_t process);

/// @return processor time of all existing threads of a process, in nanoseconds
double ProcessorTimeOf(pid_t process);

/// @return processor time of the calling thread, in nanoseconds
double ThreadTime();

/// @return resident memory of this process, in bytes
double ResidentBytes();

/// @return memory that is available without swapping, in bytes
double AvailableBytes();

#endif  // TALLYRA_BENCHMARKS_HARNESS_PROCESSOR_H
