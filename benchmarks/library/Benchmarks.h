// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LIBRARY_BENCHMARKS_H
#define TALLYRA_BENCHMARKS_LIBRARY_BENCHMARKS_H

#include "Benchmark.h"

// Each source says what it measures. In parentheses: the unit of `Options::amount`.

/// (bursts of 100 events)
void MeasureEvents(const Options& options, const CResults& results);
/// (records)
void MeasurePipeline(const Options& options, const CResults& results);
/// (bursts of 100 events for each player)
void MeasurePlayers(const Options& options, const CResults& results);
/// (records)
void MeasureQueue(const Options& options, const CResults& results);
/// (collectors)
void MeasureLife(const Options& options, const CResults& results);

#endif  // TALLYRA_BENCHMARKS_LIBRARY_BENCHMARKS_H
