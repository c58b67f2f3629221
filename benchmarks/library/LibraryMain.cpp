// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-library": what the library costs its player.

#include "Benchmarks.h"

int main(int argc, char** argv) {
    return RunBenchmark(argc, argv,
                        {{"pipeline", &MeasurePipeline},
                         {"players", &MeasurePlayers},
                         {"queue", &MeasureQueue},
                         {"idle", &MeasureIdle},
                         {"life", &MeasureLife}});
}
