// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-latency": measures a player's calls under faults that must not delay
// them, and on a healthy system in turns. Each round is a forked process. It replaces the
// platform's log, so that log lines can be slow, and the time that they take is not counted.

#include "Benchmark.h"
#include "ChildProcess.h"
#include "Stage.h"

#include "logsvc.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>

#include <future>
#include <limits>

namespace {

constexpr std::chrono::microseconds kLogTime{300};
constexpr std::array kCallNames = {"SendMediaEvent", "SendMediaError", "Execute"};

enum class Fault { NONE, SILENT_SERVICE, STOPPED_BUS, SLOW_LOG };

void Require(bool holds, const std::string& what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

/// The use of a thread so far, or in a call.
struct Spent {
    double nanos = 0;
    double waits = 0;  ///< voluntary context switches

    static Spent Now() {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return {NanosecondsSince({}), static_cast<double>(usage.ru_nvcsw)};
    }

    Spent operator-(const Spent& other) const { return {nanos - other.nanos, waits - other.waits}; }
    Spent operator+(const Spent& other) const { return {nanos + other.nanos, waits + other.waits}; }
};

std::atomic<bool> g_bSlowLog{false};
thread_local Spent t_inLog;
thread_local int t_nLogLines = 0;

// With a real-time priority no other program and no thread of the library preempts a call, so only
// the call itself and its waiting are measured.
bool BecomeUrgent() {
    const sched_param lowest{1};
    return pthread_setschedparam(pthread_self(), SCHED_FIFO, &lowest) == 0;
}

// A player that has run for a while reuses memory. Otherwise each record that is queued under a
// fault would take new pages, which the kernel clears first. The allocator keeps a thread's freed
// memory for that thread.
void UseMemoryOnce(int records) {
    // A record, its URL and the overhead of the allocator.
    using Used = std::array<char, 5200>;
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    std::vector<std::unique_ptr<Used>> all(static_cast<std::size_t>(records));
    for (auto& pUsed : all) {
        pUsed = std::make_unique<Used>();
    }
}

/// A player, its bus and its service for one round. The fault starts once the player delivers. The
/// round counts only if the fault lasted from the first call to the last.
class CRound {
  public:
    CRound(const Options& options, Fault fault)
        : m_nCalls(options.amount), m_bNewMemory(!options.settings.empty()), m_Fault(fault) {}

    /// @return whether the player's thread was urgent, then nanoseconds and waits of each call
    std::vector<double> Play() {
        m_Player.Begin();
        m_Player.End();
        m_Player.AwaitAccepted();
        const std::int64_t before = m_Player.Accepted();
        const bool silent = m_Fault == Fault::SILENT_SERVICE || m_Fault == Fault::STOPPED_BUS;
        const pid_t stopped =
            m_Fault == Fault::STOPPED_BUS ? m_Stage.Bus().Pid() : m_Stage.Sink().Pid();
        if (silent) {
            PauseProcess(stopped);
        }
        g_bSlowLog = m_Fault == Fault::SLOW_LOG;
        std::async(std::launch::async, [this] { MakeCalls(); }).get();
        g_bSlowLog = false;
        if (silent) {
            Require(m_Player.Accepted() == before, "records were accepted under a fault");
            kill(stopped, SIGCONT);
            Await([&] { return m_Player.Accepted() > before; }, "no record was on its way");
        } else {
            m_Player.End();
            m_Player.AwaitAccepted();
            Require(m_Player.Accepted() == CPlayer::Caused(), "records arrived twice");
        }
        return m_Result;
    }

  private:
    void MakeCalls() {
        // Warm-up, not measured: the library is still being loaded, and memory is new.
        constexpr int kFirstCalls = 150;
        m_Result.push_back(BecomeUrgent() ? 1 : 0);
        if (!m_bNewMemory) {
            UseMemoryOnce(kFirstCalls + m_nCalls);
        }
        m_Player.Begin();
        m_Player.Collector().SendMediaEvent(TY_EVENT_RENDER_START, 0, 0);
        m_Player.Count(2);
        Clock::time_point next = Clock::now();
        for (int i = 0; i < kFirstCalls + m_nCalls; ++i) {
            // A late call does not shorten the next pause.
            next = std::max(next + std::chrono::milliseconds(1), Clock::now());
            std::this_thread::sleep_until(next);
            const Spent spent = Measure(i);
            if (i >= kFirstCalls) {
                m_Result.insert(m_Result.end(), {spent.nanos, spent.waits});
            }
        }
        Require(m_Fault != Fault::SLOW_LOG ||
                    (t_nLogLines >= m_nCalls &&
                     t_inLog.nanos >=
                         t_nLogLines * static_cast<double>(kLogTime.count()) * kNsPerMicro),
                "the log was not slow");
    }

    Spent Measure(int index) {
        const Spent inLog = t_inLog;
        const Spent begin = Spent::Now();
        m_Player.Count(Call(index % static_cast<int>(kCallNames.size()),
                            index / static_cast<int>(kCallNames.size())));
        return Spent::Now() - begin - (t_inLog - inLog);
    }

    /// @param kind  an index of `kCallNames`
    /// @return the number of records that the call causes
    int Call(int kind, int number) {
        // A position becomes a record if it is far enough behind the last one.
        static constexpr std::array kEvents = {TY_EVENT_PLAYBACK_TIME, TY_EVENT_BUFFERING_START,
                                               TY_EVENT_BUFFERING_END, TY_EVENT_SEEK,
                                               TY_EVENT_SEEK_COMPLETE};
        constexpr int kPositionStepMs = 180'000;
        constexpr int kEventCount = kEvents.size();
        ITYDataCollector& collector = m_Player.Collector();
        if (kind == 0) {
            const auto event = kEvents.at(static_cast<std::size_t>(number % kEventCount));
            collector.SendMediaEvent(event, number / kEventCount * kPositionStepMs, 0);
            return event == TY_EVENT_BUFFERING_END ? 2 : 1;
        }
        if (kind == 1) {
            collector.SendMediaError(static_cast<TY_ERROR_TYPE>(210));
            return 1;
        }
        return collector.Execute(100 + number % 50, number, "bitrate") ? 1 : 0;
    }

    const int m_nCalls;
    const bool m_bNewMemory;
    const Fault m_Fault;
    const CStage m_Stage;
    CPlayer m_Player{m_Stage};
    std::vector<double> m_Result;
};

/// Calls of one kind in several rounds.
struct Calls {
    std::vector<double> micros;  ///< of all rounds
    double waiting = 0;          ///< number of calls in which the thread blocked
    Series runs;                 ///< one value for each round

    /// @param kind  counts from 1 in `kCallNames`; 0 is all calls
    void Add(const std::vector<double>& round, std::size_t kind) {
        std::vector<double> samples;
        for (std::size_t i = 1; i < round.size(); i += 2) {
            if (kind == 0 || (i / 2) % kCallNames.size() == kind - 1) {
                samples.push_back(round[i] / kNsPerMicro);
                waiting += round[i + 1] > 0 ? 1 : 0;
            }
        }
        micros.insert(micros.end(), samples.begin(), samples.end());
        AddPercentiles(std::move(samples), runs);
    }
};

/// The healthy rounds and those of a fault beside them; for all calls, and for those of each kind.
using Comparison = std::array<std::array<Calls, 1 + kCallNames.size()>, 2>;

// Runs both directly after each other, so that other load hits both, and in alternating order.
// Returns whether the player's threads were urgent.
bool Compare(const Options& options, Fault fault, bool healthyFirst, Comparison& comparison) {
    bool urgent = true;
    for (const bool ill : {!healthyFirst, healthyFirst}) {
        const std::vector<double> round =
            CChild([&] { return CRound(options, ill ? fault : Fault::NONE).Play(); }).Result();
        urgent = urgent && round.front() != 0;
        for (std::size_t kind = 0; kind < comparison[ill].size(); ++kind) {
            comparison[ill][kind].Add(round, kind);
        }
    }
    return urgent;
}

// The rounds of a fault are taken together, because its slowest calls are few.
void Report(const std::string& what, bool hasGoal, Calls& healthy, Calls& faulty,
            const CResults& results) {
    Series all[2];
    AddPercentiles(healthy.micros, all[0]);
    AddPercentiles(faulty.micros, all[1]);
    results.Add({what + ", p99.9", "the same without the fault", "x"},
                Ratios(all[1]["p99.9"], all[0]["p99.9"]), hasGoal ? Goal::AtMost(1.5) : Goal{});
    results.Add({what + ", calls that wait", "", "of 1000"},
                {faulty.waiting * 1000 / static_cast<double>(faulty.micros.size())},
                hasGoal ? Goal::AtMost(1) : Goal{});
    for (const std::string name : kPercentiles) {
        results.AddDetail(what + ", " + name, "us", faulty.runs[name]);
        results.AddDetail(what + ", " + name + ", healthy", "us", healthy.runs[name]);
    }
}

// The amount is the calls of each round. With a setting, queued records take new pages.
void MeasureLatency(const Options& options, const CResults& results) {
    Require(options.amount >= 1000 && options.amount <= 9000, "1000 to 9000 calls are possible");
    std::map<std::string, Comparison> comparisons;
    bool urgent = true;
    for (int run = 0; run < options.runs; ++run) {
        for (const auto& [name, fault] : {std::pair{"silent service", Fault::SILENT_SERVICE},
                                          {"stopped bus", Fault::STOPPED_BUS},
                                          {"slow log", Fault::SLOW_LOG}}) {
            urgent = Compare(options, fault, run % 2 == 0, comparisons[name]) && urgent;
        }
    }
    for (auto& [name, comparison] : comparisons) {
        for (std::size_t kind = 0; kind < comparison[0].size(); ++kind) {
            const std::string calls = kind == 0 ? "all calls" : kCallNames.at(kind - 1);
            Report(name + ", " + calls, kind == 0, comparison[0][kind], comparison[1][kind],
                   results);
        }
    }
    std::printf("the player's thread had %s\n",
                urgent ? "a real-time priority"
                       : "no right to a real-time priority: other programs were measured as well");
}

}  // namespace

extern "C" int logsvc_print(int /*buffer*/, int /*priority*/, const char* /*tag*/,
                            const char* /*format*/, ...) {
    const Spent begin = Spent::Now();
    if (g_bSlowLog) {
        std::this_thread::sleep_for(kLogTime);
    }
    ++t_nLogLines;
    t_inLog = t_inLog + (Spent::Now() - begin);
    return 0;
}

int main(int argc, char** argv) {
    return RunBenchmark(argc, argv, {{"latency", &MeasureLatency}});
}
