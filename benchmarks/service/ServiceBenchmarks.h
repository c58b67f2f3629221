// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_SERVICE_SERVICEBENCHMARKS_H
#define TALLYRA_BENCHMARKS_SERVICE_SERVICEBENCHMARKS_H

#include "Benchmark.h"

// What each adds to the results. The setting "db" is the path of the store, "service" that of the
// service's program.

/// Full batches a second, stored and discarded in turns. The amount is the seconds of each.
void MeasureRate(const Options& options, CResults& results);
/// Memory of the service while it stores many records; the amount is their number.
void MeasureMillion(const Options& options, CResults& results);
/// The queries of the command "tallyra" on the store that the previous one left.
void MeasureQueries(const Options& options, CResults& results);

#endif  // TALLYRA_BENCHMARKS_SERVICE_SERVICEBENCHMARKS_H
