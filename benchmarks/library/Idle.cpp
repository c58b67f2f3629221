// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-library", and the shortest of its benchmarks: the wake-ups and
// processor time of an idle connected collector, in several processes at once.

#include "Benchmarks.h"
#include "Stage.h"

namespace {

constexpr std::chrono::seconds kSettle{2};

/// All threads except the main one, which is the player's.
ThreadUse UseOfLibrary() {
    ThreadUse sum;
    for (const auto& [thread, use] : ThreadsOf(getpid())) {
        if (thread != getpid()) {
            sum.nanoseconds += use.nanoseconds;
            sum.switches += use.switches;
        }
    }
    return sum;
}

std::vector<double> Watch(int seconds) {
    const CStage stage;
    const CPlayer player(stage);
    std::this_thread::sleep_for(kSettle);
    const ThreadUse before = UseOfLibrary();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const ThreadUse after = UseOfLibrary();
    const double minutes = seconds / 60.0;
    return {static_cast<double>(after.switches - before.switches) / minutes,
            (after.nanoseconds - before.nanoseconds) / kNsPerMs / minutes};
}

}  // namespace

void MeasureIdle(const Options& options, CResults& results) {
    std::vector<std::unique_ptr<CChild>> children;
    for (int i = 0; i < options.runs; ++i) {
        children.push_back(std::make_unique<CChild>([&] { return Watch(options.amount); }));
    }
    std::vector<double> wakeUps;
    std::vector<double> milliseconds;
    for (const auto& pChild : children) {
        const std::vector<double> result = pChild->Result();
        wakeUps.push_back(result.at(0));
        milliseconds.push_back(result.at(1));
    }
    results.Add({"idle connected collector, wake-ups", "", "/min"}, wakeUps, Goal::AtMost(8));
    // The kernel accounts in ticks of 1 to 10 ms.
    results.Add({"idle connected collector, processor", "", "ms/min"}, milliseconds,
                Goal::AtMost(1));
}

int main(int argc, char** argv) {
    return RunBenchmark(argc, argv,
                        {{"events", &MeasureEvents},
                         {"pipeline", &MeasurePipeline},
                         {"players", &MeasurePlayers},
                         {"queue", &MeasureQueue},
                         {"idle", &MeasureIdle},
                         {"life", &MeasureLife}});
}
