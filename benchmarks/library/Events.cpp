// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures what SendMediaEvent costs the player's thread, against the minimum and against other
// ways to report an event. Each comparison is a duel: the two take turns, so that other load hits
// both.

#include "Benchmarks.h"
#include "Peers.h"

namespace {

// Events of each contender before both settle. The bus allows 128 pending calls of a connection,
// which limits GDBus.
constexpr int kRow = 100;
constexpr std::chrono::microseconds kPeriod{500};

class CLibraryPeer : public IPeer {
  public:
    explicit CLibraryPeer(const CStage& stage) : m_Player(stage) {}

    void Begin() override { m_Player.Begin(); }
    void Send() override { m_Player.Send(); }
    void Settle() override {
        m_Player.End();
        m_Player.AwaitAccepted();
    }

  private:
    CPlayer m_Player;
};

/// One of the two, and its measurements.
struct Contender {
    std::string name;
    IPeer* pPeer;
    std::vector<double> samples = {};
    Series runs = {};

    void Time() {
        const Clock::time_point begin = Clock::now();
        pPeer->Send();
        samples.push_back(NanosecondsSince(begin));
    }
};

/// The library and its peer, in this order.
using Duel = std::array<Contender, 2>;

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

/// The differences between the two kinds of measurement.
struct Kind {
    std::string title;
    std::string plot;
    void (*round)(Duel&, int);
    int rounds;
    Goal medianGoal;
    Goal p99Goal;
};

void Repeat(std::vector<Duel>& duels, const Kind& kind, int runs) {
    // The first run warms up caches, allocators and connections.
    for (int run = 0; run <= runs; ++run) {
        const int rounds = run > 0 ? kind.rounds : std::max(1, kind.rounds / 5);
        for (Duel& duel : duels) {
            for (int i = 0; i < rounds; ++i) {
                kind.round(duel, i);
            }
            for (Contender& contender : duel) {
                if (run > 0) {
                    AddPercentiles(contender.samples, contender.runs);
                }
                contender.samples.clear();
            }
        }
    }
}

void ReportCalls(Contender& contender, const Kind& kind, const CResults& results) {
    for (const std::string name : kPercentiles) {
        const std::vector<double>& runs = contender.runs[name];
        results.AddDetail(contender.name + ", " + kind.title + ", " + name, "ns", runs);
        results.AddPoint(kind.plot + "-" + name, contender.name, runs);
    }
}

void ReportDuel(Duel& duel, const Kind& kind, const CResults& results) {
    auto& [library, peer] = duel;
    const std::string what = library.name + ", " + kind.title;
    if (peer.name == "floor") {
        results.Add({what + ", median", "the floor", "x"},
                    Ratios(library.runs["median"], peer.runs["median"]), kind.medianGoal);
        results.Add({what + ", p99", "the floor", "x"},
                    Ratios(library.runs["p99"], peer.runs["p99"]), kind.p99Goal);
        ReportCalls(library, kind, results);
    } else {
        results.Add({what + ", times faster", peer.name, "x"},
                    Ratios(peer.runs["median"], library.runs["median"]),
                    Goal::AtLeast(peer.name == "GDBus" ? 4 : 1));
    }
    ReportCalls(peer, kind, results);
}

}  // namespace

void MeasureEvents(const Options& options, const CResults& results) {
    const CStage stage;
    CLibraryPeer library(stage);
    std::string withoutJournal;
    std::vector<std::pair<std::string, std::unique_ptr<IPeer>>> peers;
    peers.emplace_back("floor", MakeFloorPeer());
    peers.emplace_back("GDBus", MakeGdbusPeer(stage));
    peers.emplace_back("spdlog", MakeSpdlogPeer());
    peers.emplace_back("sd_journal_send", MakeJournalPeer(&withoutJournal));
    for (const Kind& kind : {Kind{"burst", "burst", &Burst, options.amount, Goal::AtMost(1.3), {}},
                             Kind{"consumer asleep", "asleep", &Pace, options.amount * 2 / 5,
                                  Goal::AtMost(1.2), Goal::AtMost(1.3)}}) {
        std::vector<Duel> duels;
        for (const auto& [name, pPeer] : peers) {
            if (pPeer != nullptr) {
                duels.push_back({Contender{"SendMediaEvent", &library}, {name, pPeer.get()}});
            }
        }
        Repeat(duels, kind, options.runs);
        for (Duel& duel : duels) {
            ReportDuel(duel, kind, results);
        }
        if (!withoutJournal.empty()) {
            results.AddSkipped(
                {"SendMediaEvent, " + kind.title + ", times faster", "sd_journal_send", "x"},
                withoutJournal, Goal::AtLeast(1));
        }
    }
}
