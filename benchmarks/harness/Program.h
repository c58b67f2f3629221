// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_PROGRAM_H
#define TALLYRA_BENCHMARKS_HARNESS_PROGRAM_H

#include "Results.h"

#include <functional>
#include <map>
#include <string>

/// What the caller of a benchmark chooses.
struct Options {
    int runs = 5;
    int amount = 0;  ///< work of each run, in the benchmark's own unit
};

using Benchmark = std::function<void(const Options& options, CResults& results)>;

/// The main function of a program with benchmarks: runs the one that the arguments name, and writes
/// its results to a file.
///
/// @return exit status: 0, or 2 after an exception, whose text it prints
int RunBenchmark(int argc, char** argv, const std::map<std::string, Benchmark>& benchmarks);

#endif  // TALLYRA_BENCHMARKS_HARNESS_PROGRAM_H
