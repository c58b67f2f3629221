// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-queue": what an event and a waiting record cost as the queue grows.
// While the sender runs its queue has no bound, and a service that is halted lets it grow: a batch
// waits 3 s for its answer, and a player can report some 200 000 events in less. Then the service
// goes on, and has to accept every record.

#include "Child.h"
#include "Processor.h"
#include "Results.h"
#include "Stage.h"
#include "Wire.h"

#include <malloc.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int kWindows = 20;

struct Settings {
    std::string json = "queue.json";
    int runs = 5;
    int records = 200'000;
};

/// What a run came to: nanoseconds of the player's thread for an event in each window, and behind
/// them the bytes of memory for a waiting record.
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
    // What was freed before would be taken again, and not be seen.
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

void Report(const Settings& settings, const std::vector<Run>& runs) {
    CResults results;
    const int tenth = kWindows / 10;
    const std::string name = "event while " + std::to_string(settings.records) + " records wait";
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
        results.AddPoint("queue", std::to_string(settings.records / kWindows * (window + 1)),
                         Each(runs, [&](const Run& run) { return Mean(run, window, 1); }));
    }
    results.Write(settings.json);
}

// A machine with little memory would begin to swap: it gets a shorter queue, which the table tells.
int RecordsThatFit(int wanted) {
    constexpr double shareOfMemory = 0.4;
    return std::min(wanted, static_cast<int>(AvailableBytes() * shareOfMemory / kImageBytes));
}

void Measure(Settings settings) {
    settings.records = RecordsThatFit(settings.records);
    std::vector<Run> runs;
    for (int run = 0; run < settings.runs; ++run) {
        runs.push_back(CChild([&] { return Fill(settings.records); }).Result());
    }
    Report(settings, runs);
}

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    CLI::App app("Measures events and memory as the queue grows.");
    app.add_option("--json", settings.json, "File for the results");
    app.add_option("--runs", settings.runs)->check(CLI::Range(1, 1000));
    app.add_option("--records", settings.records)->check(CLI::Range(1000, 10'000'000));
    CLI11_PARSE(app, argc, argv);
    Measure(settings);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-bench-queue: %s\n", error.what());
    return 2;
}
