// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-soak": hours of playback in minutes. The library's clock is moved by the
// program; bus and service are real. The program samples its memory and descriptors, which must not
// grow, and checks what arrived.

#include "Eventually.h"
#include "PrivateBus.h"
#include "Samples.h"
#include "ServiceProcess.h"
#include "TYDataCollector.h"
#include "doubles/FakeClock.h"
#include "doubles/PlatformDouble.h"

#include <glib.h>
#include <CLI/CLI.hpp>

#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using std::chrono::seconds;

// Two threads of each collector wait on the clock: the analyzer, and the sender or the connection
// check.
constexpr std::size_t kWaitersOfSeat = 2;

// Periods of events in seconds. They are coprime, so that they meet in every order.
constexpr int kNetworkPeriod = 97;
constexpr int kServicePeriod = 601;
constexpr int kServiceAbsence = 15;
constexpr int kKeyPeriod = 1201;
constexpr int kSamplePeriod = 10;

struct Settings {
    std::string folder = ".";
    int minutes = 600;
    int seats = 4;
    unsigned seed = 1;
    double residentKib = 512;
    double heapKib = 128;
    double leftKib = 12;
    bool replace = false;
};

/// What the receivers reported at their end.
struct Totals {
    long records = 0;
    long stops = 0;
    long problems = 0;

    /// Adds the summary that a receiver prints.
    void Add(const std::string& output) {
        const std::string summary = output.substr(output.rfind("summary: "));
        records += Count(summary, R"(summary: (\d+))");
        stops += Count(summary, R"(\n +2 .* (\d+)\n)");
        problems += Count(summary, R"(malformed +(\d+))");
    }

  private:
    static long Count(const std::string& text, const char* pPattern) {
        std::smatch match;
        return std::regex_search(text, match, std::regex(pPattern)) ? std::stol(match[1]) : 0;
    }
};

/// A player that plays contents of 8 s to 15 min one after the other, with stalls, pauses, seeks,
/// errors and aborted playbacks.
///
/// Threads: the one that created it.
class CSeat {
  public:
    /// @param bReplaces  whether each playback has a new collector
    CSeat(int number, bool bReplaces, unsigned seed, ITYClock& clock)
        : m_nNumber(number), m_bReplaces(bReplaces), m_Clock(clock), m_Random(seed) {
        MakeCollector();
    }

    /// Plays for a second.
    void Step() {
        if (m_nSecond == 0) {
            Begin();
        } else if (m_nSecond >= m_nLength) {
            End();
            return;
        } else {
            PlayOn();
        }
        ++m_nSecond;
    }

    /// Aborts the playback and creates a new collector, as a restarted player does.
    void Restart() {
        m_nSecond = 0;
        ReplaceCollector();
    }

    /// @return playbacks begun
    int Playbacks() const { return m_nPlaybacks; }
    /// @return playbacks that ended with a STOP
    int Ends() const { return m_nEnds; }
    /// @return collectors deleted
    int Deletions() const { return m_nDeletions; }

  private:
    void MakeCollector() {
        const std::string application = "org.example.seat" + std::to_string(m_nNumber);
        m_pCollector = std::make_unique<CTYDataCollector>(application.c_str(), TY_PLAYER_NATIVE,
                                                          SystemBus(), m_Clock);
    }

    void ReplaceCollector() {
        m_pCollector.reset();
        ++m_nDeletions;
        MakeCollector();
    }

    void Begin() {
        if (m_bReplaces && m_nPlaybacks > 0) {
            ReplaceCollector();
        }
        ++m_nPlaybacks;
        constexpr std::array kLengths = {900, 400, 180, 25, 8};
        m_nLength = kLengths[static_cast<std::size_t>(OneOf(kLengths.size()))] + OneOf(20);
        m_nPosition = 0;
        m_bStalled = m_bPaused = false;
        std::string url = "https://vod.example.org/" + std::to_string(m_nNumber) + "/" +
                          std::to_string(m_nPlaybacks) + "/master.m3u8";
        CTYContentInfo content(&url, 0);
        content.SetTitle("Title " + std::to_string(m_nPlaybacks));
        content.SetCustomInfo(std::string(static_cast<std::size_t>(OneOf(4000)), 'c'));
        content.SetDuration(m_nLength * 1000);
        m_pCollector->SetContentInfo(&content);
        Report(TY_EVENT_START);
    }

    void End() {
        if (OneOf(10) == 0) {
            m_pCollector->SendMediaError(static_cast<TY_ERROR_TYPE>(210));
        }
        Report(TY_EVENT_STOP);
        ++m_nEnds;
        m_nSecond = 0;
    }

    void PlayOn() {
        if (m_nSecond == 2) {
            Report(TY_EVENT_RENDER_START);
        }
        Happen(OneOf(60));
        if (!m_bStalled && !m_bPaused) {
            m_nPosition += 1000;
        }
        Report(TY_EVENT_PLAYBACK_TIME, m_nPosition);
        m_pCollector->Execute(100 + OneOf(4), m_nPosition, "bitrate");
    }

    void Happen(int chance) {
        if (chance < 4 || (m_bStalled && chance < 20)) {
            m_bStalled = !m_bStalled;
            Report(m_bStalled ? TY_EVENT_BUFFERING_START : TY_EVENT_BUFFERING_END);
        } else if (chance == 21 || (m_bPaused && chance < 30)) {
            m_bPaused = !m_bPaused;
            Report(m_bPaused ? TY_EVENT_PAUSE : TY_EVENT_RESUME);
        } else if (chance == 31) {
            m_nPosition += 30000;
            Report(TY_EVENT_SEEK, m_nPosition);
            Report(TY_EVENT_SEEK_COMPLETE, m_nPosition);
        }
    }

    void Report(int event, int param1 = 0, int param2 = 0) {
        m_pCollector->SendMediaEvent(static_cast<TY_EVENT_TYPE>(event), param1, param2);
    }

    int OneOf(int count) { return std::uniform_int_distribution<int>(0, count - 1)(m_Random); }

    const int m_nNumber;
    const bool m_bReplaces;
    ITYClock& m_Clock;
    std::mt19937 m_Random;
    std::unique_ptr<CTYDataCollector> m_pCollector;
    int m_nPlaybacks = 0;
    int m_nEnds = 0;
    int m_nDeletions = 0;

    int m_nSecond = 0;
    int m_nLength = 0;
    int m_nPosition = 0;
    bool m_bStalled = false;
    bool m_bPaused = false;
};

class CSoak {
  public:
    explicit CSoak(const Settings& settings) : m_Settings(settings) {
        m_Bus.BecomeSystemBus();
        m_Platform.Reset();
        m_Platform.keep = false;
        StartService();
        // The samples themselves must not grow the heap.
        m_Samples.resize(static_cast<std::size_t>(settings.minutes * 60 / kSamplePeriod));
        m_Samples.clear();
        for (int i = 0; i < settings.seats; ++i) {
            m_Seats.push_back(std::make_unique<CSeat>(
                i, settings.replace && i == 0, settings.seed + static_cast<unsigned>(i), m_Clock));
        }
        Settle();
    }

    void Run() {
        for (m_nSecond = 1; m_nSecond <= m_Settings.minutes * 60; ++m_nSecond) {
            for (const auto& pSeat : m_Seats) {
                pSeat->Step();
            }
            Happen();
            g_main_context_iteration(nullptr, FALSE);
            Settle();
            m_Clock.Advance(seconds(1));
            Settle();
            if (m_nSecond % kSamplePeriod == 0) {
                TakeSample();
            }
        }
        for (const auto& pSeat : m_Seats) {
            m_nEnds += pSeat->Ends();
        }
        m_Seats.clear();
        StopService();
        WriteTable(m_Settings.folder + "/samples.txt", m_Samples);
    }

    /// @return whether nothing grew, and what was reported arrived
    bool Judge() const {
        const Sample& last = m_Samples.back();
        std::printf("%d minutes, %d playbacks; %ld records arrived\n", m_Settings.minutes,
                    last.playbacks, m_Got.records);
        bool good = JudgeMemory();
        good &= AtMost("growth of the descriptors", Growth(m_Samples, &Sample::descriptors), 0.5);
        // Records reported while the service is away are lost, 15 s of every 601 s.
        const double lost = static_cast<double>(m_nEnds - m_Got.stops) / m_nEnds;
        good &= AtMost("share of the playbacks whose STOP did not arrive", lost, 0.1);
        return AtMost("problems that the receiver noted", static_cast<double>(m_Got.problems), 0) &&
               good;
    }

  private:
    static bool AtMost(const char* pWhat, double value, double limit) {
        std::printf("%-48s %9.2f  (at most %.2f)%s\n", pWhat, value, limit,
                    value <= limit ? "" : "  TOO MUCH");
        return value <= limit;
    }

    bool JudgeMemory() const {
        const double heap = Growth(m_Samples, &Sample::heapKib);
        if (m_Settings.replace) {
            // By design a deleted collector leaks the URL of its content and its closed connection.
            return AtMost("left by a deleted collector, KiB",
                          heap / Growth(m_Samples, &Sample::deletions), m_Settings.leftKib);
        }
        const bool resident =
            AtMost("growth of the resident memory, KiB", Growth(m_Samples, &Sample::residentKib),
                   m_Settings.residentKib);
        return AtMost("growth of the heap, KiB", heap, m_Settings.heapKib) && resident;
    }

    void Happen() {
        if (m_nSecond % kNetworkPeriod == 0) {
            m_Platform.connectionType = m_nSecond / kNetworkPeriod % 2 == 0
                                            ? CONNECTION_TYPE_ETHERNET
                                            : CONNECTION_TYPE_WIFI;
            m_Platform.FireNetwork(m_nSecond / kNetworkPeriod % 5 == 0 ? -1 : 0, "GATEWAY");
        }
        if (m_nSecond % kServicePeriod == 0) {
            StopService();
        } else if (m_nSecond % kServicePeriod == kServiceAbsence && m_nSecond > kServicePeriod) {
            StartService();
        }
        if (m_Settings.replace && m_nSecond % kKeyPeriod == 0) {
            FlipKey();
        }
    }

    // A collector that was switched off stays off; so each player is restarted.
    void FlipKey() {
        m_Platform.ChangeKey(0);
        m_Platform.ChangeKey(1);
        for (const auto& pSeat : m_Seats) {
            pSeat->Restart();
        }
    }

    // Time passes only while all threads of the library wait for it, so none falls behind.
    void Settle() {
        if (!Eventually([this] { return m_Clock.Waiters() >= m_Seats.size() * kWaitersOfSeat; })) {
            throw std::runtime_error("in second " + std::to_string(m_nSecond) +
                                     " a thread of the library does not become idle");
        }
    }

    void StartService() {
        m_Service.emplace(RECEIVER, m_Bus.Address());
        m_Service->WaitUntilReady();
    }

    void StopService() {
        m_Service->Terminate();
        m_Got.Add(m_Service->Output());
        m_Service.reset();
    }

    void TakeSample() {
        Sample sample = Sample::Take();
        sample.second = m_nSecond;
        for (const auto& pSeat : m_Seats) {
            sample.deletions += pSeat->Deletions();
            sample.playbacks += pSeat->Playbacks();
        }
        m_Samples.push_back(sample);
    }

    const Settings m_Settings;
    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    CPrivateBus m_Bus;
    CFakeClock m_Clock;
    std::optional<CServiceProcess> m_Service;
    Totals m_Got;
    std::vector<std::unique_ptr<CSeat>> m_Seats;
    std::vector<Sample> m_Samples;
    int m_nSecond = 0;
    int m_nEnds = 0;
};

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    CLI::App app("Play for hours in minutes; fail if memory or descriptors grow.");
    app.add_option("--folder", settings.folder, "Folder for the samples");
    app.add_option("--minutes", settings.minutes)->check(CLI::Range(2, 100000));
    app.add_option("--seats", settings.seats, "Players at once")->check(CLI::Range(1, 50));
    app.add_option("--seed", settings.seed);
    app.add_flag("--replace", settings.replace, "Delete collectors and switch the key off");
    app.add_option("--resident", settings.residentKib, "Allowed growth in KiB");
    app.add_option("--heap", settings.heapKib, "Allowed growth in KiB");
    app.add_option("--left", settings.leftKib, "Allowed leak of a deleted collector in KiB");
    CLI11_PARSE(app, argc, argv);
    CSoak soak(settings);
    soak.Run();
    return soak.Judge() ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-soak: %s\n", error.what());
    return 2;
}
