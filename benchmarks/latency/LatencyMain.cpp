// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-latency": measures a player's calls under faults that must not delay
// them, and on a healthy system in turns.
//
// The benchmark forks a process for each round, which forks its player before the receiver starts a
// thread. So no process is forked from one with several threads.

#include "Benchmark.h"
#include "LatencyPlayer.h"
#include "Stage.h"
#include "receiver/Receiver.h"

#include <algorithm>

namespace {

constexpr std::chrono::seconds kPatience{120};
constexpr std::int64_t kLogMicros = 300;
constexpr double kNsPerMicro = 1000;

enum class Fault { NONE, SILENT_SERVICE, STOPPED_BUS, SLOW_LOG };

constexpr std::array<const char*, 4> kFaultNames = {"healthy", "silent service", "stopped bus",
                                                    "slow log"};

void Require(bool holds, const std::string& what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

/// A player, its bus and its service for one round. The fault starts once the player delivers. The
/// round counts only if the fault lasted from the first call to the last.
class CRound {
  public:
    CRound(const Options& options, Fault fault) : m_Fault(fault) {
        m_Shared->calls = options.amount;
        m_Shared->newMemory = options.settings.contains("new-memory");
        m_Shared->logMicros = fault == Fault::SLOW_LOG ? kLogMicros : 0;
    }
    ~CRound() { m_Bus.Resume(); }
    CRound(const CRound&) = delete;
    CRound& operator=(const CRound&) = delete;

    /// @return whether the player's thread was urgent, then nanoseconds and waits of each call
    std::vector<double> Play() {
        CFork player([this] {
            m_Bus.BecomeSystemBus();
            Furnish(m_Folder.Path());
            PlayLatency(*m_Shared);
        });
        receiver::CReceiver service(m_Bus.Address());
        service.OwnName();
        m_Shared->step = Step::SERVICE_RUNS;
        AwaitStep(*m_Shared, Step::DELIVERS);
        Inject(service);
        m_Shared->step = Step::MEASURE;
        AwaitStep(*m_Shared, Step::MEASURED);
        CheckFault(service);
        if (m_Fault == Fault::NONE || m_Fault == Fault::SLOW_LOG) {
            m_Shared->step = Step::FINISH;
            player.Join();
            CheckDelivery(service);
        }
        std::vector<double> result{m_Shared->urgent ? 1.0 : 0.0};
        for (int i = 0; i < m_Shared->calls; ++i) {
            const LatencySample& sample = m_Shared->samples.at(static_cast<std::size_t>(i));
            result.push_back(static_cast<double>(sample.nanos));
            result.push_back(static_cast<double>(sample.waits));
        }
        return result;
    }

  private:
    void Inject(receiver::CReceiver& service) {
        if (m_Fault == Fault::SILENT_SERVICE) {
            service.SetReply("SendData", receiver::Reply::Never());
        } else if (m_Fault == Fault::STOPPED_BUS) {
            m_Bus.Pause();
        }
    }

    void CheckFault(const receiver::CReceiver& service) const {
        const std::size_t batches = service.Calls("SendData").size();
        if (m_Fault == Fault::SILENT_SERVICE) {
            Require(batches > 0, "the silent service received no call");
        } else if (m_Fault == Fault::STOPPED_BUS) {
            Require(batches == 0, "the bus was not stopped");
        } else if (m_Fault == Fault::SLOW_LOG) {
            Require(m_Shared->inLogMicros >= m_Shared->logLines * kLogMicros &&
                        m_Shared->logLines >= m_Shared->calls,
                    "the log was not slow");
        }
    }

    // A healthy round counts only if all records arrived.
    void CheckDelivery(receiver::CReceiver& service) const {
        Require(service.WaitForEvent(TY_EVENT_PLAYING_TIME, 1, kPatience),
                "the STOP did not arrive");
        const auto records = service.Records();
        const auto arrived = std::ranges::count_if(records, [](const auto& received) {
            const int event = received.record.event;
            return event >= kFirstCode && event < kFirstCode + kCodes;
        });
        Require(arrived == m_Shared->executed, std::to_string(m_Shared->executed) +
                                                   " calls of Execute were taken, and " +
                                                   std::to_string(arrived) + " records arrived");
        Require(service.Problems().empty(), "the service complains");
    }

    const Fault m_Fault;
    const CTemporaryFolder m_Folder;
    CPrivateBus m_Bus;
    const CShared<LatencyRound> m_Shared;
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

/// A fault's rounds and the healthy ones beside them; for all calls, and for those of each kind.
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
void ReportKind(const std::string& what, bool hasGoal, Calls& healthy, Calls& faulty,
                CResults& results) {
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

void Report(Fault fault, Comparison& comparison, CResults& results) {
    const std::string name = kFaultNames.at(static_cast<std::size_t>(fault));
    auto& [healthy, faulty] = comparison;
    for (std::size_t kind = 0; kind < healthy.size(); ++kind) {
        const std::string calls = kind == 0 ? "all calls" : kCallNames[kind - 1];
        ReportKind(name + ", " + calls, kind == 0, healthy[kind], faulty[kind], results);
    }
}

// The amount is the calls of each round. The setting "new-memory" gives queued records new pages.
void Measure(const Options& options, CResults& results) {
    Require(options.amount >= 1000 && options.amount <= kMostCalls,
            "1000 to 9000 calls are possible");
    std::map<Fault, Comparison> comparisons;
    bool urgent = true;
    for (int run = 0; run < options.runs; ++run) {
        for (const Fault fault : {Fault::SILENT_SERVICE, Fault::STOPPED_BUS, Fault::SLOW_LOG}) {
            urgent = Compare(options, fault, run % 2 == 0, comparisons[fault]) && urgent;
        }
    }
    for (auto& [fault, comparison] : comparisons) {
        Report(fault, comparison, results);
    }
    std::printf("the player's thread %s\n",
                urgent ? "had a real-time priority"
                       : "could not have a real-time priority: other programs were measured as "
                         "well");
}

}  // namespace

int main(int argc, char** argv) {
    return RunBenchmark(argc, argv, {{"latency", &Measure}});
}
