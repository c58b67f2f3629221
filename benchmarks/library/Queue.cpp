// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures the time of an event and the memory of a queued record as the queue grows. The queue of
// a running sender has no bound, and it grows while the service is stopped: a batch waits 3 s for
// its reply, and a player can report about 200,000 events in less. Then the service continues and
// has to accept every record.

#include "Benchmarks.h"

#include "Child.h"
#include "Processor.h"
#include "Stage.h"
#include "Wire.h"

#include <malloc.h>

#include <algorithm>

namespace {

constexpr int kWindows = 20;

/// The result of a run: nanoseconds of the player's thread for an event in each window, followed by
/// the bytes of memory for a queued record.
using Run = std::vector<double>;

double CostOfWindow(CPlayer& player, int events) {
    const double before = ThreadTime();
    for (int i = 0; i < events; ++i) {
        player.Send();
    }
    return (ThreadTime() - before) / events;
}

Run Fill(int records) {
    const CStage stage;
    CPlayer player(stage);
    player.Begin();
    CostOfWindow(player, 1000);
    player.End();
    player.AwaitAccepted();
    stage.Sink().Pause();
    // Freed memory would be reused and not be counted.
    malloc_trim(0);
    const double before = ResidentBytes();
    Run run;
    player.Begin();
    for (int window = 0; window < kWindows; ++window) {
        run.push_back(CostOfWindow(player, records / kWindows));
    }
    run.push_back((ResidentBytes() - before) / records);
    stage.Sink().Resume();
    player.End();
    player.AwaitAccepted();
    return run;
}

double Mean(const Run& run, int first, int windows) {
    double sum = 0;
    for (int i = first; i < first + windows; ++i) {
        sum += run[static_cast<std::size_t>(i)];
    }
    return sum / windows;
}

void Report(int records, const std::vector<Run>& runs, CResults& results) {
    const int tenth = kWindows / 10;
    const std::string name = "event while " + std::to_string(records) + " records wait";
    const auto last = [&](const Run& run) { return Mean(run, kWindows - tenth, tenth); };
    const auto first = [&](const Run& run) { return Mean(run, 0, tenth); };
    results.Add({"memory of a waiting record", "4800 bytes and its URL", "x"},
                Each(runs,
                     [](const Run& run) {
                         return run.back() / (kImageBytes + static_cast<double>(kUrl.size()));
                     }),
                Goal::AtMost(1.05));
    results.Add({name, "the first tenth of them", "x"}, Ratios(Each(runs, last), Each(runs, first)),
                Goal::AtMost(1.5));
    results.Add({name, "", "ns", true}, Each(runs, last));
    results.Add({"memory of a waiting record", "", "bytes", true},
                Each(runs, [](const Run& run) { return run.back(); }));
    for (int window = 0; window < kWindows; ++window) {
        results.AddPoint("queue", std::to_string(records / kWindows * (window + 1)),
                         Each(runs, [&](const Run& run) { return Mean(run, window, 1); }));
    }
}

// Shortens the queue on a machine with little memory, which would swap. The table shows the length.
int RecordsThatFit(int wanted) {
    constexpr double shareOfMemory = 0.4;
    return std::min(wanted, static_cast<int>(AvailableBytes() * shareOfMemory / kImageBytes));
}

}  // namespace

void MeasureQueue(const Options& options, CResults& results) {
    const int records = RecordsThatFit(options.amount);
    std::vector<Run> runs;
    for (int run = 0; run < options.runs; ++run) {
        runs.push_back(CChild([&] { return Fill(records); }).Result());
    }
    Report(records, runs, results);
}
