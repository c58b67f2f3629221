// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures records from SendMediaEvent until the service has accepted them, against a bare loop
// over libdbus that delivers the same bytes, and the time of each thread and process for a record.

#include "Benchmarks.h"
#include "Stage.h"

namespace {

/// Processor time of the existing threads of this process by identifier, oldest first.
std::map<pid_t, double> TimesOfThreads() {
    std::map<pid_t, double> times;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream(task.path() / "schedstat") >> times[std::stoi(task.path().filename())];
    }
    return times;
}

/// Time and processor times at the start or end of a run.
struct Uses {
    explicit Uses(const CStage& stage)
        : bus(ProcessorTimeOf(stage.Bus().Pid())), service(ProcessorTimeOf(stage.Sink().Pid())) {}

    std::map<pid_t, double> threads = TimesOfThreads();
    double bus;
    double service;
    Clock::time_point time = Clock::now();
};

class CPipeline {
  public:
    void Measure(const Options& options, const CResults& results) {
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
        constexpr int kEventsBetweenLooks = 72;
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

    // A player that never waited would only fill its memory. This many records keep every stage
    // busy.
    void WaitForRoom() const {
        constexpr std::int64_t kMostUnderWay = 720;
        while (CPlayer::Caused() - m_Player.Accepted() > kMostUnderWay) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
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
        Uses after(m_Stage);
        double all = 0;
        std::vector<std::pair<double, pid_t>> busiest;
        for (auto& [thread, time] : after.threads) {
            const auto known = before.threads.find(thread);
            time = (time - (known == before.threads.end() ? 0 : known->second)) / records;
            all += time;
            if (thread != getpid()) {
                busiest.emplace_back(time, thread);
            }
        }
        std::ranges::partial_sort(busiest, busiest.begin() + 2, std::greater<>());
        const auto [analyzer, sender] = std::minmax(busiest[0].second, busiest[1].second);
        series["player's thread"].push_back(after.threads[getpid()]);
        series["analyzer's thread"].push_back(after.threads[analyzer]);
        series["sender's thread"].push_back(after.threads[sender]);
        series["rate"].push_back(records / passed * kNsPerSecond);
        series["all"].push_back(all);
        series["the bus"].push_back((after.bus - before.bus) / records);
        series["the counting service"].push_back((after.service - before.service) / records);
    }

    void Report(const CResults& results) {
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

void MeasurePipeline(const Options& options, const CResults& results) {
    CPipeline().Measure(options, results);
}
