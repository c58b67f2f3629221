// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures the time of an event and the memory of a queued record as the queue grows. The queue of
// a running sender has no bound, and it grows while the service is stopped: a batch waits 3 s for
// its reply, and a player can report about 200,000 events in less. Then the service continues and
// has to accept every record.

#include "Benchmarks.h"
#include "ChildProcess.h"
#include "Proc.h"
#include "Stage.h"

#include <malloc.h>

#include <numeric>

namespace {

constexpr int kWindows = 20;
constexpr int kTenth = kWindows / 10;
constexpr double kKib = 1024;

double CostOfWindow(CPlayer& player, int events) {
    const double before = ProcessorTime();
    for (int i = 0; i < events; ++i) {
        player.Send();
    }
    return (ProcessorTime() - before) / events;
}

double ResidentBytes() {
    return static_cast<double>(ReadProcKib(getpid(), "VmRSS")) * kKib;
}

/// @return nanoseconds of the player's thread for an event in each window, followed by the bytes of
///         memory for a queued record
std::vector<double> Fill(int records) {
    const CStage stage;
    CPlayer player(stage);
    player.Begin();
    CostOfWindow(player, 1000);
    player.End();
    player.AwaitAccepted();
    PauseProcess(stage.Sink().Pid());
    // Freed memory would be reused and not be counted.
    malloc_trim(0);
    const double before = ResidentBytes();
    std::vector<double> run;
    player.Begin();
    for (int window = 0; window < kWindows; ++window) {
        run.push_back(CostOfWindow(player, records / kWindows));
    }
    run.push_back((ResidentBytes() - before) / records);
    kill(stage.Sink().Pid(), SIGCONT);
    player.End();
    player.AwaitAccepted();
    return run;
}

/// Adds a run of `Fill`.
void AddRun(const std::vector<double>& run, Series& series) {
    const auto windows = run.begin();
    for (int window = 0; window < kWindows; ++window) {
        series[std::to_string(window)].push_back(windows[window]);
    }
    const auto mean = [](auto begin) {
        return std::accumulate(begin, begin + kTenth, 0.0) / kTenth;
    };
    series["first"].push_back(mean(windows));
    series["last"].push_back(mean(windows + kWindows - kTenth));
    series["bytes"].push_back(run.back());
    series["least"].push_back(kImageBytes + static_cast<double>(kUrl.size()));
}

}  // namespace

void MeasureQueue(const Options& options, const CResults& results) {
    const int records = options.amount;
    Series runs;
    for (int run = 0; run < options.runs; ++run) {
        AddRun(CChild([&] { return Fill(records); }).Result(), runs);
    }
    const std::string name = "event while " + std::to_string(records) + " records wait";
    const std::string memory = "memory of a waiting record";
    results.Add({memory, "4800 bytes and its URL", "x"}, Ratios(runs["bytes"], runs["least"]),
                Goal::AtMost(1.05));
    results.Add({name, "the first tenth of them", "x"}, Ratios(runs["last"], runs["first"]),
                Goal::AtMost(1.5));
    results.AddDetail(name, "ns", runs["last"]);
    results.AddDetail(memory, "bytes", runs["bytes"]);
    for (int window = 0; window < kWindows; ++window) {
        results.AddPoint("queue", std::to_string(records / kWindows * (window + 1)),
                         runs[std::to_string(window)]);
    }
}
