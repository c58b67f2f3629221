// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LIBRARY_BENCHMARKS_H
#define TALLYRA_BENCHMARKS_LIBRARY_BENCHMARKS_H

#include "Benchmark.h"

// What each adds to the results, and the unit of `Options::amount`.

/// SendMediaEvent against other ways to report an event. Bursts of 100 events.
void MeasureEvents(const Options& options, CResults& results);
/// The way of a record from the event to the service's reply. Records.
void MeasurePipeline(const Options& options, CResults& results);
/// An event while several players report at once. Bursts of 100 events for each player.
void MeasurePlayers(const Options& options, CResults& results);
/// Time of an event and memory of a record while many are queued. Records.
void MeasureQueue(const Options& options, CResults& results);
/// A connected collector that has nothing to do. Seconds.
void MeasureIdle(const Options& options, CResults& results);
/// Creating and deleting a collector. Collectors.
void MeasureLife(const Options& options, CResults& results);

#endif  // TALLYRA_BENCHMARKS_LIBRARY_BENCHMARKS_H
