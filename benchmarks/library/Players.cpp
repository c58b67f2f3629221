// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures an event while several players report at once, each with its own collector and thread.

#include "Benchmarks.h"
#include "Stage.h"

#include <barrier>
#include <deque>

namespace {

constexpr std::array<unsigned, 5> kPlayers = {1, 2, 4, 8, 16};

/// The measurements of one player's thread, in nanoseconds.
struct Measured {
    double processor = 0;
    std::vector<double> samples;
};

void Burst(CPlayer& player, std::barrier<>& start, Measured& measured) {
    player.Begin();
    player.Send();
    start.arrive_and_wait();
    const double before = ProcessorTime();
    for (int i = 0; i < 100; ++i) {
        const Clock::time_point begin = Clock::now();
        player.Send();
        measured.samples.push_back(NanosecondsSince(begin));
    }
    measured.processor += ProcessorTime() - before;
    player.End();
}

/// Adds a run: the time of the player's thread for an event, and the wall-clock time of a call.
void AddRun(std::deque<CPlayer>& all, unsigned players, int bursts, Series& series) {
    std::vector<Measured> measured(players);
    for (int burst = 0; burst < bursts; ++burst) {
        std::barrier start(static_cast<std::ptrdiff_t>(players));
        std::vector<std::jthread> threads;
        for (unsigned i = 0; i < players; ++i) {
            threads.emplace_back([&, i] { Burst(all[i], start, measured[i]); });
        }
        threads.clear();
        all.front().AwaitAccepted();
    }
    double processor = 0;
    std::vector<double> samples;
    for (const Measured& one : measured) {
        processor += one.processor;
        samples.insert(samples.end(), one.samples.begin(), one.samples.end());
    }
    series["processor"].push_back(processor / static_cast<double>(samples.size()));
    AddPercentiles(std::move(samples), series);
}

// More players than processors compete with each other, so they have no goal.
void Report(std::map<unsigned, Series>& runs, const CResults& results) {
    for (const unsigned players : kPlayers) {
        const std::vector<double>& costs = runs[players]["processor"];
        const std::string name = std::to_string(players) + " players";
        results.AddPoint("players", std::to_string(players), costs);
        results.AddDetail(name + ", processor time of an event", "ns", costs);
        results.AddDetail(name + ", median of an event", "ns", runs[players]["median"]);
        if (players > 1) {
            results.Add(
                {name + ", cost of an event", "one player", "x"},
                Ratios(costs, runs[1]["processor"]),
                players <= std::thread::hardware_concurrency() ? Goal::AtMost(1.5) : Goal{});
        }
    }
}

}  // namespace

void MeasurePlayers(const Options& options, const CResults& results) {
    const CStage stage;
    std::deque<CPlayer> all;
    while (all.size() < kPlayers.back()) {
        all.emplace_back(stage);
    }
    std::map<unsigned, Series> warmUp;
    std::map<unsigned, Series> runs;
    for (int run = 0; run <= options.runs; ++run) {
        for (const unsigned players : kPlayers) {
            AddRun(all, players, options.amount, (run == 0 ? warmUp : runs)[players]);
        }
    }
    Report(runs, results);
}
