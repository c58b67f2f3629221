// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures records from SendMediaEvent until the service has accepted them, against a bare loop
// over libdbus that delivers the same bytes, and the time of each thread and process for a record.

#include "BareLoop.h"
#include "Benchmarks.h"
#include "Stage.h"

#include <algorithm>

namespace {

// A player that never waited would only fill its memory. This many records keep every stage busy.
constexpr std::int64_t kMostUnderWay = 720;
constexpr int kEventsBetweenLooks = 72;
constexpr std::chrono::microseconds kPause{1000};

/// Time and processor times at the start or end of a run.
struct Uses {
    explicit Uses(const CStage& stage)
        : threads(ThreadsOf(getpid())),
          bus(ProcessorTimeOf(stage.Bus().Pid())),
          service(ProcessorTimeOf(stage.Sink().Pid())) {}

    std::map<pid_t, ThreadUse> threads;
    double bus;
    double service;
    Clock::time_point time = Clock::now();
};

class CPipeline {
  public:
    void Measure(const Options& options, CResults& results) {
        const int warmUp = std::max(1000, options.amount / 10);
        Play(warmUp);
        Loop(warmUp);
        m_Library.clear();
        m_Bare.clear();
        for (int run = 0; run < options.runs; ++run) {
            for (const bool library : {run % 2 == 0, run % 2 != 0}) {
                library ? Play(options.amount) : Loop(options.amount);
            }
        }
        Report(results);
    }

  private:
    void Play(int records) {
        const Uses before(m_Stage);
        const std::int64_t first = m_Player.Accepted();
        m_Player.Begin();
        for (int sent = 1; sent <= records; ++sent) {
            m_Player.Send();
            if (sent % kEventsBetweenLooks == 0) {
                m_Player.Note();
                WaitForRoom();
            }
        }
        m_Player.End();
        m_Player.AwaitAccepted();
        AddRun(before, static_cast<double>(m_Player.Accepted() - first), m_Library);
    }

    void WaitForRoom() const {
        while (CPlayer::Caused() - m_Player.Accepted() > kMostUnderWay) {
            std::this_thread::sleep_for(kPause);
        }
    }

    void Loop(int records) {
        const Uses before(m_Stage);
        m_BareLoop.Send(records);
        CPlayer::NoteForeign(records);
        AddRun(before, records, m_Bare);
    }

    // Only two of the library's threads are busy, and the analyzer is the older one.
    void AddRun(const Uses& before, double records, Series& series) const {
        const double passed = NanosecondsSince(before.time);
        const Uses after(m_Stage);
        double all = 0;
        std::vector<std::pair<double, pid_t>> busiest;
        for (const auto& [thread, use] : after.threads) {
            const auto known = before.threads.find(thread);
            const double used =
                use.nanoseconds - (known == before.threads.end() ? 0 : known->second.nanoseconds);
            all += used / records;
            if (thread == getpid()) {
                series["player's thread"].push_back(used / records);
            } else {
                busiest.emplace_back(used / records, thread);
            }
        }
        std::partial_sort(busiest.begin(), busiest.begin() + 2, busiest.end(), std::greater<>());
        const bool inOrder = busiest[0].second < busiest[1].second;
        series["analyzer's thread"].push_back(busiest[inOrder ? 0 : 1].first);
        series["sender's thread"].push_back(busiest[inOrder ? 1 : 0].first);
        series["rate"].push_back(records / passed * kNsPerSecond);
        series["all"].push_back(all);
        series["the bus"].push_back((after.bus - before.bus) / records);
        series["the counting service"].push_back((after.service - before.service) / records);
    }

    void Report(CResults& results) {
        results.Add({"events to accepted, rate", "bare libdbus loop", "x"},
                    Ratios(m_Library["rate"], m_Bare["rate"]), Goal::AtLeast(0.9));
        results.Add({"processor time a record, all threads", "bare libdbus loop", "x"},
                    Ratios(m_Library["all"], m_Bare["all"]), Goal::AtMost(1.5));
        const auto rate = [&results](const std::string& name, Series& series) {
            results.AddDetail(name + ", accepted records", "/s", series["rate"]);
            results.AddPoint("rate", name, series["rate"]);
        };
        const auto processor = [&results](const std::string& name, const auto& runs) {
            results.AddDetail("processor time a record, " + name, "ns", runs);
            results.AddPoint("processor", name, runs);
        };
        rate("library", m_Library);
        rate("bare loop", m_Bare);
        for (const char* pName : {"player's thread", "analyzer's thread", "sender's thread",
                                  "the bus", "the counting service"}) {
            processor(pName, m_Library[pName]);
        }
        processor("bare loop", m_Bare["all"]);
    }

    const CStage m_Stage;
    CPlayer m_Player{m_Stage};
    CBareLoop m_BareLoop;
    Series m_Library;
    Series m_Bare;
};

}  // namespace

void MeasurePipeline(const Options& options, CResults& results) {
    CPipeline().Measure(options, results);
}
