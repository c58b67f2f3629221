// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-events": what SendMediaEvent costs the player's thread, against the
// least that is possible and against other ways to report an event. Each comparison is a duel: the
// two take turns, so that what else the machine does hits both of them.

#include "Peers.h"
#include "Results.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// Events of each of the two before both are waited for. The bus takes 128 calls of a connection
// that wait for their answers, so GDBus could not have more of them on the way.
constexpr int kRow = 100;
constexpr std::chrono::microseconds kPeriod{500};

struct Settings {
    std::string json = "events.json";
    int runs = 5;
    int bursts = 100;
    int rows = 40;
};

/// One of the two, with what was measured of it.
struct Contender {
    std::string name;
    IPeer* pPeer;
    std::vector<double> samples;
    std::vector<Percentiles> runs;

    void Time() {
        const Clock::time_point begin = Clock::now();
        pPeer->Send();
        const std::chrono::duration<double, std::nano> passed = Clock::now() - begin;
        samples.push_back(passed.count());
    }
};

/// The library and what it is compared with, in this order.
using Duel = std::array<Contender, 2>;
using Round = void (*)(Duel&, int);

// Who begins changes from round to round.
void Burst(Duel& duel, int round) {
    for (std::size_t i = 0; i < duel.size(); ++i) {
        Contender& contender = duel[(i + static_cast<std::size_t>(round)) % duel.size()];
        contender.pPeer->Begin();
        for (int sent = 0; sent < kRow; ++sent) {
            contender.Time();
        }
        contender.pPeer->Settle();
    }
}

void Pace(Duel& duel, int round) {
    for (const Contender& contender : duel) {
        contender.pPeer->Begin();
    }
    Clock::time_point next = Clock::now() + kPeriod;
    for (std::size_t i = 0; i < kRow * duel.size(); ++i, next += kPeriod / duel.size()) {
        std::this_thread::sleep_until(next);
        duel[(i + static_cast<std::size_t>(round)) % duel.size()].Time();
    }
    for (const Contender& contender : duel) {
        contender.pPeer->Settle();
    }
}

void Run(Duel& duel, Round round, int rounds) {
    for (Contender& contender : duel) {
        contender.samples.clear();
    }
    for (int i = 0; i < rounds; ++i) {
        round(duel, i);
    }
}

/// What the two kinds of measurement differ in.
struct Kind {
    std::string title;
    std::string plot;
    Round round;
    int rounds;
    Goal medianGoal;
    Goal p99Goal;
};

void Repeat(std::vector<Duel>& duels, const Kind& kind, int runs) {
    // The first rounds warm up caches, allocators and connections.
    for (Duel& duel : duels) {
        Run(duel, kind.round, std::max(1, kind.rounds / 5));
    }
    for (int run = 0; run < runs; ++run) {
        for (Duel& duel : duels) {
            Run(duel, kind.round, kind.rounds);
            for (Contender& contender : duel) {
                contender.runs.push_back(Percentiles::Of(contender.samples));
            }
        }
    }
}

void ReportCalls(const Contender& contender, const Kind& kind, CResults& results) {
    for (const auto& [name, member] :
         {std::pair{"median", &Percentiles::median}, std::pair{"p99", &Percentiles::p99},
          std::pair{"p99.9", &Percentiles::p999}}) {
        const std::vector<double> runs = Each(contender.runs, member);
        results.Add({contender.name + ", " + kind.title + ", " + name, "", "ns", true}, runs);
        results.AddPoint(kind.plot + "-" + name, contender.name, runs);
    }
}

void ReportFloor(const Duel& duel, const Kind& kind, CResults& results) {
    const std::string what = duel[0].name + ", " + kind.title;
    results.Add(
        {what + ", median", "the floor", "x"},
        Ratios(Each(duel[0].runs, &Percentiles::median), Each(duel[1].runs, &Percentiles::median)),
        kind.medianGoal);
    results.Add(
        {what + ", p99", "the floor", "x"},
        Ratios(Each(duel[0].runs, &Percentiles::p99), Each(duel[1].runs, &Percentiles::p99)),
        kind.p99Goal);
    ReportCalls(duel[0], kind, results);
}

void ReportPeer(const Duel& duel, const Kind& kind, CResults& results) {
    results.Add(
        {duel[0].name + ", " + kind.title + ", times faster", duel[1].name, "x"},
        Ratios(Each(duel[1].runs, &Percentiles::median), Each(duel[0].runs, &Percentiles::median)),
        Goal::AtLeast(duel[1].name == "GDBus" ? 4 : 1));
}

class CEvents {
  public:
    explicit CEvents(const Settings& settings) : m_Settings(settings) {
        m_Peers.emplace_back("SendMediaEvent", MakeLibraryPeer(m_Stage));
        m_Peers.emplace_back("floor", MakeFloorPeer());
        m_Peers.emplace_back("GDBus", MakeGdbusPeer(m_Stage));
        m_Peers.emplace_back("spdlog", MakeSpdlogPeer());
        if (auto pJournal = MakeJournalPeer(&m_strWithoutJournal)) {
            m_Peers.emplace_back("sd_journal_send", std::move(pJournal));
        }
    }

    void Measure() {
        Measure({"burst", "burst", &Burst, m_Settings.bursts, Goal::AtMost(1.3), {}});
        Measure({"consumer asleep", "asleep", &Pace, m_Settings.rows, Goal::AtMost(1.2),
                 Goal::AtMost(1.3)});
        m_Results.Write(m_Settings.json);
    }

  private:
    void Measure(const Kind& kind) {
        std::vector<Duel> duels;
        for (std::size_t i = 1; i < m_Peers.size(); ++i) {
            duels.push_back({Of(0), Of(i)});
        }
        Repeat(duels, kind, m_Settings.runs);
        ReportFloor(duels.front(), kind, m_Results);
        for (const Duel& duel : duels) {
            if (duel[1].name != "floor") {
                ReportPeer(duel, kind, m_Results);
            }
            ReportCalls(duel[1], kind, m_Results);
        }
        if (!m_strWithoutJournal.empty()) {
            m_Results.AddSkipped(
                {m_Peers[0].first + ", " + kind.title + ", times faster", "sd_journal_send", "x"},
                m_strWithoutJournal, Goal::AtLeast(1));
        }
    }

    Contender Of(std::size_t peer) const {
        return {m_Peers[peer].first, m_Peers[peer].second.get(), {}, {}};
    }

    const Settings m_Settings;
    const CStage m_Stage;
    CResults m_Results;
    std::string m_strWithoutJournal;
    std::vector<std::pair<std::string, std::unique_ptr<IPeer>>> m_Peers;
};

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    CLI::App app("Measures what SendMediaEvent costs the player's thread.");
    app.add_option("--json", settings.json, "File for the results");
    app.add_option("--runs", settings.runs)->check(CLI::Range(1, 1000));
    app.add_option("--bursts", settings.bursts, "Bursts of 100 a run")->check(CLI::PositiveNumber);
    app.add_option("--rows", settings.rows, "Rows of 100 single events a run")
        ->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);
    CEvents(settings).Measure();
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-bench-events: %s\n", error.what());
    return 2;
}
