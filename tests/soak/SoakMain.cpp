// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-soak": an hour and more of what players do, in minutes. The library's clock
// is moved by hand; its bus, and the service there, are real. Memory and descriptors of the process
// are noted on the way, and may not grow.

#include "PrivateBus.h"
#include "Samples.h"
#include "Seat.h"
#include "SoakService.h"
#include "doubles/FakeClock.h"
#include "doubles/PlatformDouble.h"

#include <glib.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::chrono::seconds;

constexpr seconds kPatience{60};
// Each collector has two threads that wait: the analyzer's, and the sender's or the check for the
// service.
constexpr std::size_t kWaitersOfSeat = 2;

// How often things happen, in seconds. They share no divisor, so that all orders come about.
constexpr int kNetworkPeriod = 97;
constexpr int kServicePeriod = 601;
constexpr int kServiceAbsence = 15;
constexpr int kKeyPeriod = 1201;
constexpr int kSamplePeriod = 10;

struct Settings {
    std::string program;
    std::string serve;
    std::string folder = ".";
    int minutes = 600;
    int seats = 4;
    unsigned seed = 1;
    double residentKib = 512;
    double heapKib = 128;
    double leftKib = 12;
    bool replace = false;
};

/// A bus that is the process's system bus from the beginning.
class CSystemBus : public CPrivateBus {
  public:
    CSystemBus() { BecomeSystemBus(); }
};

class CSoak {
  public:
    explicit CSoak(const Settings& settings)
        : m_Settings(settings),
          m_Service(settings.program, m_Bus.Address(), settings.folder + "/service.txt") {
        m_Platform.Reset();
        m_Platform.keep = false;
        m_Service.Start();
        // What is measured with must not grow itself.
        m_Samples.resize(static_cast<std::size_t>(settings.minutes * 60 / kSamplePeriod));
        m_Samples.clear();
        for (int i = 0; i < settings.seats; ++i) {
            const auto habit = settings.replace && i == 0 ? CSeat::Habit::MAKES_COLLECTOR
                                                          : CSeat::Habit::KEEPS_COLLECTOR;
            m_Seats.push_back(std::make_unique<CSeat>(
                i, habit, settings.seed + static_cast<unsigned>(i), m_Clock));
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
        m_Service.Stop();
        WriteTable(m_Settings.folder + "/samples.txt", m_Samples);
    }

    /// @return whether nothing grew, and what was reported arrived
    bool Judge() const {
        const Sample& last = m_Samples.back();
        const CSoakService::Totals& got = m_Service.Got();
        std::printf("%d minutes, %d playbacks; %ld records arrived\n", m_Settings.minutes,
                    last.playbacks, got.records);
        bool good = m_Settings.replace ? JudgeWhatIsLeft() : JudgeMemory();
        good &= AtMost("growth of the descriptors",
                       Growth(m_Samples, [](const Sample& s) { return s.descriptors; }), 0.5);
        // What is reported while the service is away is lost, one second in forty.
        const double lost = static_cast<double>(m_nEnds - got.stops) / m_nEnds;
        good &= AtMost("share of the playbacks whose end did not arrive", lost, 0.1);
        return AtMost("problems that the service had", static_cast<double>(got.problems), 0) &&
               good;
    }

  private:
    static bool AtMost(const char* pWhat, double value, double limit) {
        std::printf("%-48s %9.2f  (at most %.2f)%s\n", pWhat, value, limit,
                    value <= limit ? "" : "  TOO MUCH");
        return value <= limit;
    }

    bool JudgeMemory() const {
        const bool resident =
            AtMost("growth of the resident memory, KiB",
                   Growth(m_Samples, [](const Sample& s) { return s.residentKib; }),
                   m_Settings.residentKib);
        return AtMost("growth of the heap, KiB",
                      Growth(m_Samples, [](const Sample& s) { return s.heapKib; }),
                      m_Settings.heapKib) &&
               resident;
    }

    // A collector that goes leaves the URL of its content and its closed connection, by design.
    bool JudgeWhatIsLeft() const {
        const double heap = Growth(m_Samples, [](const Sample& s) { return s.heapKib; });
        const double deletions = Growth(m_Samples, [](const Sample& s) { return s.deletions; });
        return AtMost("left by a deleted collector, KiB", heap / deletions, m_Settings.leftKib);
    }

    void Happen() {
        if (m_nSecond % kNetworkPeriod == 0) {
            m_Platform.connectionType = m_nSecond / kNetworkPeriod % 2 == 0
                                            ? CONNECTION_TYPE_ETHERNET
                                            : CONNECTION_TYPE_WIFI;
            m_Platform.FireNetwork(m_nSecond / kNetworkPeriod % 5 == 0 ? -1 : 0, "GATEWAY");
        }
        if (m_nSecond % kServicePeriod == 0) {
            m_Service.Stop();
        } else if (m_nSecond % kServicePeriod == kServiceAbsence && m_nSecond > kServicePeriod) {
            m_Service.Start();
        }
        if (m_Settings.replace && m_nSecond % kKeyPeriod == 0) {
            FlipKey();
        }
    }

    // A collector that was switched off stays off; its player is started again some time.
    void FlipKey() {
        m_Platform.ChangeKey(0);
        m_Platform.ChangeKey(1);
        for (const auto& pSeat : m_Seats) {
            pSeat->Restart();
        }
    }

    // Time goes on when all threads wait for it: an hour is no reason to fall behind.
    void Settle() {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (m_Clock.Waiters() < m_Seats.size() * kWaitersOfSeat) {
            if (std::chrono::steady_clock::now() > deadline) {
                throw std::runtime_error("in second " + std::to_string(m_nSecond) +
                                         " a thread of the library does not come to rest");
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
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
    CSystemBus m_Bus;
    CFakeClock m_Clock;
    CSoakService m_Service;
    std::vector<std::unique_ptr<CSeat>> m_Seats;
    std::vector<Sample> m_Samples;
    int m_nSecond = 0;
    int m_nEnds = 0;
};

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    settings.program = argv[0];
    CLI::App app("Plays for hours in minutes and looks for what grows.");
    app.add_option("--folder", settings.folder, "Where the samples are left");
    app.add_option("--minutes", settings.minutes)->check(CLI::Range(2, 100000));
    app.add_option("--seats", settings.seats, "Players at once")->check(CLI::Range(1, 50));
    app.add_option("--seed", settings.seed);
    app.add_flag("--replace", settings.replace, "Collectors are deleted, and the key goes off");
    app.add_option("--resident", settings.residentKib, "KiB that it may grow by");
    app.add_option("--heap", settings.heapKib, "KiB that it may grow by");
    app.add_option("--left", settings.leftKib, "KiB that a deleted collector may leave");
    app.add_option("--serve", settings.serve, "Only receive, on the bus of this address");
    CLI11_PARSE(app, argc, argv);
    if (!settings.serve.empty()) {
        return CSoakService::Serve(settings.serve, settings.folder);
    }
    CSoak soak(settings);
    soak.Run();
    return soak.Judge() ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-soak: %s\n", error.what());
    return 2;
}
