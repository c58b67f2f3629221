// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures records from SendMediaEvent until the service has accepted them, against a bare loop
// over libdbus that delivers the same bytes, and the time of each thread and process for a record.

#include "Benchmarks.h"

#include "BareLoop.h"
#include "Processor.h"
#include "Stage.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// A player that never waited would only fill its memory. This many records keep every stage busy.
constexpr std::int64_t kMostUnderWay = 720;
constexpr int kEventsBetweenLooks = 72;
constexpr std::chrono::microseconds kPause{1000};

/// The result of one run. Times are nanoseconds of processor time for a record.
struct Run {
    double rate = 0;  ///< accepted records a second
    double all = 0;   ///< all threads of the process
    double player = 0;
    double analyzer = 0;
    double sender = 0;
    double bus = 0;
    double service = 0;
};

/// Processor times at the start of a run.
struct Uses {
    explicit Uses(const CStage& stage)
        : threads(ThreadsOf(getpid())),
          bus(ProcessorTimeOf(stage.Bus().Pid())),
          service(ProcessorTimeOf(stage.Sink().Pid())) {}

    std::map<pid_t, ThreadUse> threads;
    double bus;
    double service;
};

class CPipeline {
  public:
    CPipeline(const Options& options, CResults& results)
        : m_Options(options), m_Results(results), m_Player(m_Stage) {}

    void Measure() {
        const int warmUp = std::max(1000, m_Options.amount / 10);
        Play(warmUp);
        Loop(warmUp);
        for (int run = 0; run < m_Options.runs; ++run) {
            const bool libraryFirst = run % 2 == 0;
            for (const bool library : {libraryFirst, !libraryFirst}) {
                (library ? m_Library : m_Bare)
                    .push_back(library ? Play(m_Options.amount) : Loop(m_Options.amount));
            }
        }
        Report();
    }

  private:
    Run Play(int records) {
        const Uses before(m_Stage);
        const std::int64_t first = m_Player.Accepted();
        const Clock::time_point begin = Clock::now();
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
        return RunOf(begin, before, static_cast<double>(m_Player.Accepted() - first));
    }

    void WaitForRoom() const {
        while (CPlayer::Caused() - m_Player.Accepted() > kMostUnderWay) {
            std::this_thread::sleep_for(kPause);
        }
    }

    Run Loop(int records) {
        const Uses before(m_Stage);
        const Clock::time_point begin = Clock::now();
        m_BareLoop.Send(records);
        CPlayer::NoteForeign(records);
        return RunOf(begin, before, records);
    }

    // Only two of the library's threads are busy, and the analyzer is the older one.
    Run RunOf(Clock::time_point begin, const Uses& before, double records) const {
        const std::chrono::duration<double> passed = Clock::now() - begin;
        const Uses after(m_Stage);
        Run run{.rate = records / passed.count(),
                .bus = (after.bus - before.bus) / records,
                .service = (after.service - before.service) / records};
        std::vector<std::pair<double, pid_t>> busiest;
        for (const auto& [thread, use] : after.threads) {
            const auto known = before.threads.find(thread);
            const double used =
                use.nanoseconds - (known == before.threads.end() ? 0 : known->second.nanoseconds);
            run.all += used / records;
            if (thread != getpid()) {
                busiest.emplace_back(used / records, thread);
            } else {
                run.player = used / records;
            }
        }
        std::partial_sort(busiest.begin(), busiest.begin() + 2, busiest.end(), std::greater<>());
        const bool inOrder = busiest[0].second < busiest[1].second;
        run.analyzer = busiest[inOrder ? 0 : 1].first;
        run.sender = busiest[inOrder ? 1 : 0].first;
        return run;
    }

    void Report() {
        m_Results.Add({"events to accepted, rate", "bare libdbus loop", "x"},
                      Ratios(Each(m_Library, &Run::rate), Each(m_Bare, &Run::rate)),
                      Goal::AtLeast(0.9));
        m_Results.Add({"processor time a record, all threads", "bare libdbus loop", "x"},
                      Ratios(Each(m_Library, &Run::all), Each(m_Bare, &Run::all)),
                      Goal::AtMost(1.5));
        ReportRate("library", m_Library);
        ReportRate("bare loop", m_Bare);
        for (const auto& [name, member] :
             {std::pair{"player's thread", &Run::player},
              std::pair{"analyzer's thread", &Run::analyzer},
              std::pair{"sender's thread", &Run::sender}, std::pair{"the bus", &Run::bus},
              std::pair{"the counting service", &Run::service}}) {
            ReportThread(name, Each(m_Library, member));
        }
        ReportThread("bare loop", Each(m_Bare, &Run::all));
    }

    void ReportRate(const std::string& name, const std::vector<Run>& runs) {
        m_Results.Add({name + ", accepted records", "", "/s", true}, Each(runs, &Run::rate));
        m_Results.AddPoint("rate", name, Each(runs, &Run::rate));
    }

    void ReportThread(const std::string& name, const std::vector<double>& runs) {
        m_Results.Add({"processor time a record, " + name, "", "ns", true}, runs);
        m_Results.AddPoint("processor", name, runs);
    }

    const Options m_Options;
    CResults& m_Results;
    const CStage m_Stage;
    CPlayer m_Player;
    CBareLoop m_BareLoop;
    std::vector<Run> m_Library;
    std::vector<Run> m_Bare;
};

}  // namespace

void MeasurePipeline(const Options& options, CResults& results) {
    CPipeline(options, results).Measure();
}
