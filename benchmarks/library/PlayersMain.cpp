// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-players": what an event costs when several players report at once,
// each with a collector of its own on a thread of its own.

#include "Processor.h"
#include "Results.h"
#include "Stage.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <map>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::array<unsigned, 5> kPlayers = {1, 2, 4, 8, 16};
constexpr int kBurst = 100;

struct Settings {
    std::string json = "players.json";
    int runs = 5;
    int bursts = 20;
};

/// What one run came to, in nanoseconds for an event.
struct Run {
    double processor;  ///< time of the player's thread
    double median;     ///< of a call as the clock on the wall sees it
};

/// What one player's thread has measured.
struct Measured {
    double processor = 0;
    std::vector<double> samples;
};

class CPlayers {
  public:
    explicit CPlayers(const Settings& settings) : m_Settings(settings) {
        for (unsigned i = 0; i < kPlayers.back(); ++i) {
            m_Players.push_back(std::make_unique<CPlayer>(m_Stage));
        }
    }

    void Measure() {
        for (const unsigned players : kPlayers) {
            Together(players);
        }
        for (int run = 0; run < m_Settings.runs; ++run) {
            for (const unsigned players : kPlayers) {
                m_Runs[players].push_back(Together(players));
            }
        }
        Report();
    }

  private:
    Run Together(unsigned players) {
        std::vector<Measured> measured(players);
        for (int burst = 0; burst < m_Settings.bursts; ++burst) {
            std::barrier start(static_cast<std::ptrdiff_t>(players));
            std::vector<std::thread> threads;
            for (unsigned i = 0; i < players; ++i) {
                threads.emplace_back([&, i] { Burst(*m_Players[i], start, measured[i]); });
            }
            for (std::thread& thread : threads) {
                thread.join();
            }
            m_Players.front()->AwaitAccepted();
        }
        return Merge(measured);
    }

    static void Burst(CPlayer& player, std::barrier<>& start, Measured& measured) {
        player.Begin();
        player.Send();
        start.arrive_and_wait();
        const double before = ThreadTime();
        for (int i = 0; i < kBurst; ++i) {
            const Clock::time_point begin = Clock::now();
            player.Send();
            const std::chrono::duration<double, std::nano> passed = Clock::now() - begin;
            measured.samples.push_back(passed.count());
        }
        measured.processor += ThreadTime() - before;
        player.End();
    }

    Run Merge(std::vector<Measured>& measured) const {
        double processor = 0;
        std::vector<double> samples;
        for (const Measured& one : measured) {
            processor += one.processor;
            samples.insert(samples.end(), one.samples.begin(), one.samples.end());
        }
        processor /= static_cast<double>(samples.size());
        return {processor, Percentiles::Of(samples).median};
    }

    // Beyond the number of processors the players take each other's time: that is only told.
    void Report() {
        const unsigned processors = std::max(1U, std::thread::hardware_concurrency());
        const std::vector<double> alone = Each(m_Runs.at(1), &Run::processor);
        for (const unsigned players : kPlayers) {
            const std::vector<double> costs = Each(m_Runs.at(players), &Run::processor);
            const std::string name = std::to_string(players) + " players";
            m_Results.AddPoint("players", std::to_string(players), costs);
            m_Results.Add({name + ", processor time of an event", "", "ns", true}, costs);
            m_Results.Add({name + ", median of an event", "", "ns", true},
                          Each(m_Runs.at(players), &Run::median));
            if (players > 1) {
                m_Results.Add({name + ", cost of an event", "one player", "x"},
                              Ratios(costs, alone),
                              players <= processors ? Goal::AtMost(1.5) : Goal{});
            }
        }
        m_Results.Write(m_Settings.json);
    }

    const Settings m_Settings;
    const CStage m_Stage;
    std::vector<std::unique_ptr<CPlayer>> m_Players;
    std::map<unsigned, std::vector<Run>> m_Runs;
    CResults m_Results;
};

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    CLI::App app("Measures what an event costs when several players report at once.");
    app.add_option("--json", settings.json, "File for the results");
    app.add_option("--runs", settings.runs)->check(CLI::Range(1, 1000));
    app.add_option("--bursts", settings.bursts, "Of 100 events, for each player and run")
        ->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);
    CPlayers(settings).Measure();
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-bench-players: %s\n", error.what());
    return 2;
}
