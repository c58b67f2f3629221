// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-idle": what a connected collector does that has nothing to do. Several
// processes watch one each at the same time.

#include "Child.h"
#include "Processor.h"
#include "Results.h"
#include "Stage.h"

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

namespace {

constexpr std::chrono::seconds kSettle{2};
constexpr double kNsPerMs = 1e6;

struct Settings {
    std::string json = "idle.json";
    int runs = 5;
    int seconds = 60;
};

/// Of all threads but the main one, which is the player's: it sleeps the whole time.
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

void Measure(const Settings& settings) {
    std::vector<std::unique_ptr<CChild>> children;
    for (int i = 0; i < settings.runs; ++i) {
        children.push_back(std::make_unique<CChild>([&] { return Watch(settings.seconds); }));
    }
    std::vector<double> wakeUps;
    std::vector<double> milliseconds;
    for (const auto& pChild : children) {
        const std::vector<double> result = pChild->Result();
        wakeUps.push_back(result.at(0));
        milliseconds.push_back(result.at(1));
    }
    CResults results;
    results.Add({"idle connected collector, wake-ups", "", "/min"}, wakeUps, Goal::AtMost(8));
    // The kernel's own accounting begins to show at a tick, of 1 to 10 ms.
    results.Add({"idle connected collector, processor", "", "ms/min"}, milliseconds,
                Goal::AtMost(1));
    results.Write(settings.json);
}

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    CLI::App app("Watches connected collectors that have nothing to do.");
    app.add_option("--json", settings.json, "File for the results");
    app.add_option("--runs", settings.runs, "Collectors, each in its process")
        ->check(CLI::Range(1, 50));
    app.add_option("--seconds", settings.seconds)->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);
    Measure(settings);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-bench-idle: %s\n", error.what());
    return 2;
}
