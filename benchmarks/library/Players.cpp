// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures an event while several players report at once, each with its own collector and thread.

#include "Benchmarks.h"

#include "Processor.h"
#include "Stage.h"

#include <algorithm>
#include <array>
#include <barrier>
#include <chrono>
#include <map>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::array<unsigned, 5> kPlayers = {1, 2, 4, 8, 16};
constexpr int kBurst = 100;

/// The result of one run, in nanoseconds for an event.
struct Run {
    double processor;  ///< time of the player's thread
    double median;     ///< wall-clock time of a call
};

/// The measurements of one player's thread.
struct Measured {
    double processor = 0;
    std::vector<double> samples;
};

class CPlayers {
  public:
    CPlayers(const Options& options, CResults& results) : m_Options(options), m_Results(results) {
        for (unsigned i = 0; i < kPlayers.back(); ++i) {
            m_Players.push_back(std::make_unique<CPlayer>(m_Stage));
        }
    }

    void Measure() {
        for (const unsigned players : kPlayers) {
            Together(players);
        }
        for (int run = 0; run < m_Options.runs; ++run) {
            for (const unsigned players : kPlayers) {
                m_Runs[players].push_back(Together(players));
            }
        }
        Report();
    }

  private:
    Run Together(unsigned players) {
        std::vector<Measured> measured(players);
        for (int burst = 0; burst < m_Options.amount; ++burst) {
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

    // More players than processors compete with each other, so they have no goal.
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
    }

    const Options m_Options;
    CResults& m_Results;
    const CStage m_Stage;
    std::vector<std::unique_ptr<CPlayer>> m_Players;
    std::map<unsigned, std::vector<Run>> m_Runs;
};

}  // namespace

void MeasurePlayers(const Options& options, CResults& results) {
    CPlayers(options, results).Measure();
}
