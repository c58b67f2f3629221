// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-events": measures what SendMediaEvent costs the player's thread,
// against the minimum and against other ways to report an event. Each comparison is a duel: the two
// take turns, so that other load hits both.

#include "Peers.h"
#include "Program.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// Events of each contender before both settle. The bus allows 128 pending calls of a connection,
// which limits GDBus.
constexpr int kRow = 100;
constexpr std::chrono::microseconds kPeriod{500};

/// One of the two, and its measurements.
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

/// The library and its peer, in this order.
using Duel = std::array<Contender, 2>;
using Round = void (*)(Duel&, int);

// The two start in alternating order.
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

/// The differences between the two kinds of measurement.
struct Kind {
    std::string title;
    std::string plot;
    Round round;
    int rounds;
    Goal medianGoal;
    Goal p99Goal;
};

void Repeat(std::vector<Duel>& duels, const Kind& kind, int runs) {
    // Warm up caches, allocators and connections.
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
    CEvents(const Options& options, CResults& results) : m_Options(options), m_Results(results) {
        m_Peers.emplace_back("SendMediaEvent", MakeLibraryPeer(m_Stage));
        m_Peers.emplace_back("floor", MakeFloorPeer());
        m_Peers.emplace_back("GDBus", MakeGdbusPeer(m_Stage));
        m_Peers.emplace_back("spdlog", MakeSpdlogPeer());
        if (auto pJournal = MakeJournalPeer(&m_strWithoutJournal)) {
            m_Peers.emplace_back("sd_journal_send", std::move(pJournal));
        }
    }

    void Measure() {
        Measure({"burst", "burst", &Burst, m_Options.amount, Goal::AtMost(1.3), {}});
        Measure({"consumer asleep", "asleep", &Pace, m_Options.amount * 2 / 5, Goal::AtMost(1.2),
                 Goal::AtMost(1.3)});
    }

  private:
    void Measure(const Kind& kind) {
        std::vector<Duel> duels;
        for (std::size_t i = 1; i < m_Peers.size(); ++i) {
            duels.push_back({Of(0), Of(i)});
        }
        Repeat(duels, kind, m_Options.runs);
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

    const Options m_Options;
    CResults& m_Results;
    const CStage m_Stage;
    std::string m_strWithoutJournal;
    std::vector<std::pair<std::string, std::unique_ptr<IPeer>>> m_Peers;
};

}  // namespace

int main(int argc, char** argv) {
    return RunBenchmark(argc, argv, {{"events", [](const Options& options, CResults& results) {
                                          CEvents(options, results).Measure();
                                      }}});
}
