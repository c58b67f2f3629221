// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures an event while several players report at once, each with its own collector and thread.

#include "Benchmarks.h"
#include "Stage.h"

#include <array>
#include <barrier>

namespace {

constexpr std::array<unsigned, 5> kPlayers = {1, 2, 4, 8, 16};
constexpr int kBurst = 100;

/// The measurements of one player's thread, in nanoseconds.
struct Measured {
    double processor = 0;
    std::vector<double> samples;
};

void Burst(CPlayer& player, std::barrier<>& start, Measured& measured) {
    player.Begin();
    player.Send();
    start.arrive_and_wait();
    const double before = ThreadTime();
    for (int i = 0; i < kBurst; ++i) {
        const Clock::time_point begin = Clock::now();
        player.Send();
        measured.samples.push_back(NanosecondsSince(begin));
    }
    measured.processor += ThreadTime() - before;
    player.End();
}

using Players = std::vector<std::unique_ptr<CPlayer>>;

std::vector<Measured> Together(const Players& all, unsigned players, int bursts) {
    std::vector<Measured> measured(players);
    for (int burst = 0; burst < bursts; ++burst) {
        std::barrier start(static_cast<std::ptrdiff_t>(players));
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < players; ++i) {
            threads.emplace_back([&, i] { Burst(*all[i], start, measured[i]); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        all.front()->AwaitAccepted();
    }
    return measured;
}

/// Adds a run: the time of the player's thread for an event, and the wall-clock time of a call.
void AddRun(const std::vector<Measured>& measured, Series& series) {
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
void Report(std::map<unsigned, Series>& runs, CResults& results) {
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

void MeasurePlayers(const Options& options, CResults& results) {
    const CStage stage;
    Players all(kPlayers.back());
    for (auto& pPlayer : all) {
        pPlayer = std::make_unique<CPlayer>(stage);
    }
    std::map<unsigned, Series> runs;
    // The first run warms up.
    for (int run = 0; run <= options.runs; ++run) {
        for (const unsigned players : kPlayers) {
            const auto measured = Together(all, players, options.amount);
            if (run > 0) {
                AddRun(measured, runs[players]);
            }
        }
    }
    Report(runs, results);
}
