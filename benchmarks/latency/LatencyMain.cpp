// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-latency": measures a player's calls under faults that must not delay
// them, and on a healthy system in turns.

#include "ChildProcess.h"
#include "LatencySamples.h"
#include "PrivateBus.h"
#include "Results.h"
#include "receiver/Receiver.h"

#include <CLI/CLI.hpp>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr std::chrono::seconds kPatience{120};
constexpr std::uint8_t kPlayingTime = 20;
constexpr std::uint8_t kFirstCode = 100;
constexpr std::uint8_t kLastCode = 149;

enum class Fault { NONE, SILENT_SERVICE, STOPPED_BUS, SLOW_LOG };

constexpr std::array kFaults = {Fault::SILENT_SERVICE, Fault::STOPPED_BUS, Fault::SLOW_LOG};

const char* NameOf(Fault fault) {
    static constexpr const char* kNames[] = {"healthy", "silent service", "stopped bus",
                                             "slow log"};
    return kNames[static_cast<std::size_t>(fault)];
}

struct Settings {
    std::string player;
    std::string folder = ".";
    std::string json = "latency.json";
    int runs = 5;
    int calls = 4000;
    int paceUs = 1000;
    int logUs = 300;
    double goal = 1.5;
    bool newMemory = false;
};

void Require(bool holds, const std::string& what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

/// A pair of connected sockets.
class CSocketPair {
  public:
    CSocketPair() {
        Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_fds.data()) == 0,
                "no pair of sockets");
    }
    ~CSocketPair() {
        close(m_fds[0]);
        CloseTheirs();
    }
    CSocketPair(const CSocketPair&) = delete;
    CSocketPair& operator=(const CSocketPair&) = delete;

    int Theirs() const { return m_fds[1]; }
    // Without our copy, we see end-of-file when the player exits.
    void CloseTheirs() {
        if (m_fds[1] >= 0) {
            close(m_fds[1]);
            m_fds[1] = -1;
        }
    }

    void AwaitReady() const {
        pollfd waited = {m_fds[0], POLLIN, 0};
        char byte = 0;
        const auto limit = std::chrono::milliseconds(kPatience).count();
        Require(poll(&waited, 1, static_cast<int>(limit)) == 1 && read(m_fds[0], &byte, 1) == 1,
                "the player did not become ready");
    }

    void SayGo() const { Require(write(m_fds[0], "g", 1) == 1, "the player exited"); }

  private:
    std::array<int, 2> m_fds{};
};

using Samples = std::vector<LatencySample>;

/// A player, its bus and its service for one round. The fault starts once the player delivers. The
/// round counts only if the fault lasted from the first call to the last.
class CRound {
  public:
    CRound(const Settings& settings, Fault fault) : m_Settings(settings), m_Fault(fault) {
        m_Bus.BecomeSystemBus();
        m_Service.OwnName();
    }
    ~CRound() { m_Bus.Resume(); }
    CRound(const CRound&) = delete;
    CRound& operator=(const CRound&) = delete;

    Samples Play() {
        CSocketPair sockets;
        CChildProcess player({m_Settings.player, File(), std::to_string(m_Settings.calls),
                              std::to_string(m_Settings.paceUs),
                              std::to_string(m_Fault == Fault::SLOW_LOG ? m_Settings.logUs : 0),
                              std::to_string(sockets.Theirs()), m_Settings.newMemory ? "0" : "1"},
                             {.keepFds = {sockets.Theirs()}});
        sockets.CloseTheirs();
        sockets.AwaitReady();
        Inject();
        sockets.SayGo();
        sockets.AwaitReady();
        const LatencyHeader header = Read();
        m_bUrgent = header.urgent != 0;
        CheckFault(header);
        if (!IsDeliveryIll()) {
            sockets.SayGo();
            Require(player.WaitForExit(kPatience) == 0, "the player fails");
            CheckDelivery(header);
        }
        return std::move(m_Samples);
    }

    /// @return whether the player's thread had a real-time priority
    bool WasUrgent() const { return m_bUrgent; }

  private:
    std::string File() const { return m_Settings.folder + "/latency.samples"; }

    bool IsDeliveryIll() const {
        return m_Fault == Fault::SILENT_SERVICE || m_Fault == Fault::STOPPED_BUS;
    }

    void Inject() {
        if (m_Fault == Fault::SILENT_SERVICE) {
            m_Service.SetReply("SendData", receiver::Reply::Never());
        } else if (m_Fault == Fault::STOPPED_BUS) {
            m_Bus.Pause();
        }
    }

    LatencyHeader Read() {
        std::ifstream file(File(), std::ios::binary);
        LatencyHeader header{};
        file.read(reinterpret_cast<char*>(&header), sizeof(header));
        Require(file.good(), "the player wrote nothing");
        m_Samples.resize(static_cast<std::size_t>(m_Settings.calls));
        file.read(reinterpret_cast<char*>(m_Samples.data()),
                  static_cast<std::streamsize>(m_Samples.size() * sizeof(LatencySample)));
        Require(file.good(), "the player wrote too few samples");
        return header;
    }

    void CheckFault(const LatencyHeader& header) const {
        const std::size_t batches = m_Service.Calls("SendData").size();
        const std::string name = NameOf(m_Fault);
        if (m_Fault == Fault::SILENT_SERVICE) {
            Require(batches > 0, name + ": it received no call");
        } else if (m_Fault == Fault::STOPPED_BUS) {
            Require(batches == 0, name + ": it was not stopped");
        } else if (m_Fault == Fault::SLOW_LOG) {
            Require(header.logMicros >= header.logLines * m_Settings.logUs &&
                        header.logLines >= m_Settings.calls,
                    name + ": it was not slow");
        }
    }

    // A healthy round counts only if all records arrived.
    void CheckDelivery(const LatencyHeader& header) const {
        Require(m_Service.WaitForEvent(kPlayingTime, 1, kPatience), "the STOP did not arrive");
        const auto records = m_Service.Records();
        const auto arrived = std::count_if(records.begin(), records.end(), [](const auto& record) {
            return record.record.event >= kFirstCode && record.record.event <= kLastCode;
        });
        Require(arrived == header.executed, std::to_string(header.executed) +
                                                " calls of Execute were taken, and " +
                                                std::to_string(arrived) + " records arrived");
        Require(m_Service.Problems().empty(), "the service complains");
    }

    const Settings& m_Settings;
    const Fault m_Fault;
    CPrivateBus m_Bus;
    receiver::CReceiver m_Service{m_Bus.Address()};
    Samples m_Samples;
    bool m_bUrgent = false;
};

/// Percentiles of calls, in microseconds.
struct Quantiles {
    std::size_t calls = 0;
    double median = 0;
    double p99 = 0;
    double p999 = 0;
    std::size_t waiting = 0;  ///< calls in which the thread blocked

    static Quantiles Of(const Samples& samples) {
        std::vector<std::uint32_t> nanos;
        nanos.reserve(samples.size());
        for (const LatencySample& sample : samples) {
            nanos.push_back(sample.nanos);
        }
        std::sort(nanos.begin(), nanos.end());
        const auto at = [&nanos](std::size_t perMille) {
            return nanos[nanos.size() * perMille / 1000] / 1000.0;
        };
        const auto waiting = std::count_if(samples.begin(), samples.end(),
                                           [](const auto& sample) { return sample.waits > 0; });
        return {nanos.size(), at(500), at(990), at(999), static_cast<std::size_t>(waiting)};
    }

    nlohmann::json ToJson() const {
        return {{"calls", calls},
                {"median_us", median},
                {"p99_us", p99},
                {"p999_us", p999},
                {"waiting_calls", waiting}};
    }
};

/// A fault's rounds and the healthy ones beside them.
struct Comparison {
    Samples healthy;
    Samples faulty;
};

void Add(Samples& all, const Samples& some) {
    all.insert(all.end(), some.begin(), some.end());
}

template <class Condition>
Comparison Only(const Comparison& comparison, Condition condition) {
    Comparison chosen;
    std::copy_if(comparison.healthy.begin(), comparison.healthy.end(),
                 std::back_inserter(chosen.healthy), condition);
    std::copy_if(comparison.faulty.begin(), comparison.faulty.end(),
                 std::back_inserter(chosen.faulty), condition);
    return chosen;
}

class CLatency {
  public:
    explicit CLatency(const Settings& settings) : m_Settings(settings) {}

    void Repeat() {
        for (int i = 0; i < m_Settings.runs; ++i) {
            for (const Fault fault : kFaults) {
                Compare(fault, i % 2 == 0);
            }
        }
    }

    /// @return whether all goals were met
    bool Report() {
        std::printf("\n%-14s %-15s %6s  %30s  %30s  %6s\n", "", "", "", "healthy, us            ",
                    "faulty, us             ", "p99.9");
        std::printf("%-14s %-15s %6s  %7s %7s %8s %5s  %7s %7s %8s %5s  %6s\n", "fault", "calls",
                    "number", "median", "p99", "p99.9", "waits", "median", "p99", "p99.9", "waits",
                    "ratio");
        bool reached = true;
        for (const auto& [fault, comparison] : m_Comparisons) {
            Rows(fault, comparison);
            reached = Row(fault, "all", comparison) && reached;
        }
        std::printf(
            "\ngoal, for all calls together: a ratio of at most %.2f, and at most one call in a "
            "thousand that blocks\n",
            m_Settings.goal);
        std::printf("the player's thread %s\n",
                    m_bUrgent ? "had a real-time priority"
                              : "could not have a real-time priority: other programs were measured "
                                "as well");
        m_Json["real_time_priority"] = m_bUrgent;
        WriteJson(m_Settings.json, m_Json);
        return reached;
    }

  private:
    // Runs both directly after each other, so that other load hits both, and in alternating order.
    void Compare(Fault fault, bool healthyFirst) {
        Samples healthy;
        Samples faulty;
        for (const bool ill : {!healthyFirst, healthyFirst}) {
            CRound round(m_Settings, ill ? fault : Fault::NONE);
            (ill ? faulty : healthy) = round.Play();
            m_bUrgent = m_bUrgent && round.WasUrgent();
        }
        std::printf("  %-14s p99.9 %8.1f us, healthy %8.1f us\n", NameOf(fault),
                    Quantiles::Of(faulty).p999, Quantiles::Of(healthy).p999);
        std::fflush(stdout);
        Add(m_Comparisons[fault].healthy, healthy);
        Add(m_Comparisons[fault].faulty, faulty);
    }

    void Rows(Fault fault, const Comparison& comparison) {
        for (const MeasuredCall call :
             {MeasuredCall::EVENT, MeasuredCall::ERROR, MeasuredCall::EXECUTE}) {
            Row(fault, kMeasuredCallNames[static_cast<std::size_t>(call)],
                Only(comparison,
                     [call](const LatencySample& sample) { return sample.call == call; }));
        }
    }

    bool Row(Fault fault, const char* pCalls, const Comparison& comparison) {
        const Quantiles healthy = Quantiles::Of(comparison.healthy);
        const Quantiles faulty = Quantiles::Of(comparison.faulty);
        const double ratio = faulty.p999 / healthy.p999;
        std::printf("%-14s %-15s %6zu  %7.1f %7.1f %8.1f %5zu  %7.1f %7.1f %8.1f %5zu  %6.2f\n",
                    NameOf(fault), pCalls, faulty.calls, healthy.median, healthy.p99, healthy.p999,
                    healthy.waiting, faulty.median, faulty.p99, faulty.p999, faulty.waiting, ratio);
        m_Json[NameOf(fault)][pCalls] = {
            {"healthy", healthy.ToJson()}, {"faulty", faulty.ToJson()}, {"p999_ratio", ratio}};
        return ratio <= m_Settings.goal && faulty.waiting * 1000 <= faulty.calls;
    }

    const Settings m_Settings;
    std::map<Fault, Comparison> m_Comparisons;
    nlohmann::json m_Json;
    bool m_bUrgent = true;
};

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    CLI::App app("Measures a player's calls under faults.");
    app.add_option("--player", settings.player, "The measured program")->required();
    app.add_option("--folder", settings.folder, "Write its samples to this folder");
    app.add_option("--json", settings.json, "Write the results to this file");
    app.add_option("--runs", settings.runs)->check(CLI::Range(1, 1000));
    app.add_option("--calls", settings.calls, "Calls of each round")->check(CLI::Range(1000, 9000));
    app.add_option("--pace", settings.paceUs, "Microseconds from call to call")
        ->check(CLI::Range(100, 1000000));
    app.add_option("--log", settings.logUs, "Microseconds that a line takes in the slow log")
        ->check(CLI::Range(1, 1000000));
    app.add_flag("--new-memory", settings.newMemory, "Let each queued record take new pages");
    app.add_option("--goal", settings.goal, "Exit with status 1 if a ratio is higher");
    CLI11_PARSE(app, argc, argv);
    CLatency latency(settings);
    latency.Repeat();
    return latency.Report() ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-bench-latency: %s\n", error.what());
    return 2;
}
