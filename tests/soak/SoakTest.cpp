// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Hours of playback in minutes, for script/soak. The library's clock is moved by hand; bus and
// service are real. The process samples its memory and descriptors, which must not grow.

#include "Eventually.h"
#include "PrivateBus.h"
#include "Proc.h"
#include "Sanitizers.h"
#include "ServiceProcess.h"
#include "TYDataCollector.h"
#include "Test.h"
#include "doubles/FakeClock.h"
#include "doubles/PlatformDouble.h"

#include <glib.h>
#include <malloc.h>
#include <random>
#include <regex>

namespace {

using std::chrono::seconds;

// Periods of events in seconds. They are coprime, so that they meet in every order.
constexpr int kNetworkPeriod = 97;
constexpr int kServicePeriod = 601;
constexpr int kServiceAbsence = 15;
constexpr int kKeyPeriod = 1201;
constexpr int kSamplePeriod = 10;

/// @return a number that script/soak has put into the environment
int Chosen(const char* pName, int usual) {
    const char* pNumber = std::getenv(pName);
    return pNumber == nullptr ? usual : std::atoi(pNumber);
}

/// @return the number behind the first match of a pattern; 0 without a match
long NumberIn(const std::string& text, const char* pPattern) {
    std::smatch match;
    return std::regex_search(text, match, std::regex(pPattern)) ? std::stol(match[1]) : 0;
}

/// The resources of this process at one moment.
struct Sample {
    int second = 0;  ///< of the library's time
    double residentKib = 0;
    double heapKib = 0;  ///< allocated from the heap and not freed
    double descriptors = 0;
    double deletions = 0;  ///< collectors deleted so far

    /// Reads memory and descriptors.
    static Sample Take() {
        Sample sample;
        sample.residentKib = static_cast<double>(ReadProcKib(getpid(), "VmRSS"));
        const struct mallinfo2 heap = mallinfo2();
        sample.heapKib = static_cast<double>(heap.uordblks + heap.hblkhd) / 1024;
        const std::filesystem::directory_iterator descriptors("/proc/self/fd");
        // One of them reads the folder.
        sample.descriptors =
            static_cast<double>(std::distance(begin(descriptors), end(descriptors)) - 1);
        return sample;
    }
};

/// Computes how much a value grows over the samples: fits a straight line by least squares and
/// returns its rise from the first sample to the last. The first quarter is left out, in which
/// buffers, stacks and the allocator's arenas fill. A single peak hardly changes the result; a
/// steady leak is counted in full.
double Growth(const std::vector<Sample>& samples, double Sample::*value) {
    const std::span<const Sample> late = std::span(samples).subspan(samples.size() / 4);
    const auto count = static_cast<double>(late.size());
    double meanX = 0;
    double meanY = 0;
    for (const Sample& sample : late) {
        meanX += sample.second / count;
        meanY += sample.*value / count;
    }
    double covariance = 0;
    double variance = 0;
    for (const Sample& sample : late) {
        covariance += (sample.second - meanX) * (sample.*value - meanY);
        variance += (sample.second - meanX) * (sample.second - meanX);
    }
    return covariance / variance * (late.back().second - late.front().second);
}

/// Writes a table to the file that script/soak names.
void WriteTable(const std::vector<Sample>& samples) {
    const char* pPath = std::getenv("TALLYRA_SOAK_SAMPLES");
    std::ofstream file(pPath != nullptr ? pPath : "/dev/null");
    file << "second resident_kib heap_kib descriptors deletions\n";
    for (const Sample& sample : samples) {
        file << sample.second << ' ' << sample.residentKib << ' ' << sample.heapKib << ' '
             << sample.descriptors << ' ' << sample.deletions << '\n';
    }
    EXPECT_TRUE(file.flush());
}

/// A player that plays contents of 8 s to 15 min one after the other, with stalls, pauses, seeks,
/// errors and aborted playbacks.
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

    int Ends() const { return m_nEnds; }            ///< playbacks that ended with a STOP
    int Deletions() const { return m_nDeletions; }  ///< of collectors

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

class CSoakTest : public testing::Test {
  protected:
    CSoakTest() {
        m_Bus.BecomeSystemBus();
        m_Platform.Reset();
        m_Platform.keep = false;
        StartService();
        // The samples themselves must not grow the heap.
        m_Samples.resize(static_cast<std::size_t>(m_nEnd / kSamplePeriod));
        m_Samples.clear();
    }

    /// @param replace  whether collectors are deleted and the key is switched off
    void Play(bool replace) {
        const auto seed = static_cast<unsigned>(Chosen("TALLYRA_SOAK_SEED", 1));
        for (int i = 0; i < Chosen("TALLYRA_SOAK_SEATS", 4); ++i) {
            m_Seats.push_back(std::make_unique<CSeat>(i, replace && i == 0,
                                                      seed + static_cast<unsigned>(i), m_Clock));
        }
        Settle();
        for (m_nSecond = 1; m_nSecond <= m_nEnd && !HasFatalFailure(); ++m_nSecond) {
            PlayASecond(replace);
        }
        for (const auto& pSeat : m_Seats) {
            m_nEnds += pSeat->Ends();
        }
        m_Seats.clear();
        StopService();
        WriteTable(m_Samples);
        ASSERT_GE(m_Samples.size(), 8U) << "too few to judge by";
        ExpectThatRecordsArrived();
    }

    std::vector<Sample> m_Samples;

  private:
    // Time passes only while all threads of the library wait for it, so none falls behind. Two
    // threads of each collector do: the analyzer, and the sender or the connection check.
    void Settle() {
        ASSERT_TRUE(Eventually([this] { return m_Clock.Waiters() >= m_Seats.size() * 2; }))
            << "in second " << m_nSecond << " a thread of the library does not become idle";
    }

    void PlayASecond(bool replace) {
        for (const auto& pSeat : m_Seats) {
            pSeat->Step();
        }
        ChangeTheWorld(replace);
        g_main_context_iteration(nullptr, FALSE);
        Settle();
        m_Clock.Advance(seconds(1));
        Settle();
        if (m_nSecond % kSamplePeriod == 0) {
            TakeSample();
        }
    }

    void ChangeTheWorld(bool replace) {
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
        if (replace && m_nSecond % kKeyPeriod == 0) {
            m_Platform.ChangeKey(0);
            m_Platform.ChangeKey(1);
            // A collector that was switched off stays off.
            std::ranges::for_each(m_Seats, [](const auto& pSeat) { pSeat->Restart(); });
        }
    }

    void StartService() {
        m_Service.emplace(RECEIVER, m_Bus.Address());
        m_Service->WaitUntilReady();
    }

    /// Adds the summary that the receiver prints at its end.
    void StopService() {
        m_Service->Terminate();
        const std::string output = m_Service->Output();
        const std::string summary = output.substr(output.rfind("summary: "));
        m_nStops += NumberIn(summary, R"(\n +2 .* (\d+)\n)");
        m_nProblems += NumberIn(summary, R"(malformed +(\d+))");
        m_Service.reset();
    }

    void TakeSample() {
        Sample sample = Sample::Take();
        sample.second = m_nSecond;
        for (const auto& pSeat : m_Seats) {
            sample.deletions += pSeat->Deletions();
        }
        m_Samples.push_back(sample);
    }

    void ExpectThatRecordsArrived() const {
        std::printf("the STOP of %ld of %ld playbacks arrived\n", m_nStops, m_nEnds);
        // Records reported while the service is away are lost, 15 s of every 601 s.
        EXPECT_GE(m_nStops * 10, m_nEnds * 9);
        EXPECT_EQ(m_nProblems, 0);
    }

    const int m_nEnd = Chosen("TALLYRA_SOAK_MINUTES", 600) * 60;
    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    CPrivateBus m_Bus;
    CFakeClock m_Clock;
    std::optional<CServiceProcess> m_Service;
    std::vector<std::unique_ptr<CSeat>> m_Seats;
    int m_nSecond = 0;
    long m_nEnds = 0;
    long m_nStops = 0;
    long m_nProblems = 0;
};

/// Prints and returns how much a value of the samples grows.
double Growth(const char* what, const std::vector<Sample>& samples, double Sample::*value) {
    const double growth = Growth(samples, value);
    std::printf("growth of %s: %.2f\n", what, growth);
    return growth;
}

TEST_F(CSoakTest, Steady) {
    Play(false);
    EXPECT_LE(Growth("resident memory, KiB", m_Samples, &Sample::residentKib), 512);
    EXPECT_LE(Growth("the heap, KiB", m_Samples, &Sample::heapKib), 128);
    EXPECT_LE(Growth("descriptors", m_Samples, &Sample::descriptors), 0.5);
}

// By design a deleted collector leaks the URL of its content and its closed connection.
TEST_F(CSoakTest, Replace) {
    Play(true);
    const double deletions = Growth("deletions", m_Samples, &Sample::deletions);
    EXPECT_LE(Growth("the heap, KiB", m_Samples, &Sample::heapKib) / deletions, 12);
    EXPECT_LE(Growth("descriptors", m_Samples, &Sample::descriptors), 0.5);
}

/// @return a sample for every 10 s of an hour
std::vector<Sample> Hour(double (*pResidentKib)(int second)) {
    std::vector<Sample> samples;
    for (int second = 10; second <= 3600; second += 10) {
        samples.push_back({.second = second, .residentKib = pResidentKib(second)});
    }
    return samples;
}

TEST(SoakSamplesTest, GrowthIsTheRiseThroughTheLastThreeQuarters) {
    const auto growth = [](double (*pResidentKib)(int second)) {
        return Growth(Hour(pResidentKib), &Sample::residentKib);
    };
    EXPECT_NEAR(growth([](int) { return 9000.0; }), 0, 0.001);
    EXPECT_NEAR(growth([](int second) { return 9000.0 + second; }), 2690, 10)
        << "a leak of 1 KiB/s";
    EXPECT_NEAR(growth([](int second) { return 9000.0 + std::min(second, 900); }), 0, 1)
        << "buffers that fill in the first quarter";
    EXPECT_NEAR(growth([](int second) { return second == 3000 ? 19000.0 : 9000.0; }), 100, 100)
        << "a single peak";
}

TEST(SoakSamplesTest, SampleCountsDescriptorsAndMemoryThatIsNotFreed) {
    // The first sample of a process allocates buffers that stay.
    Sample::Take();
    const Sample before = Sample::Take();
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const std::vector<char> held(40 * 1024);
    const Sample after = Sample::Take();
    close(fd);
    EXPECT_EQ(after.descriptors, before.descriptors + 1);
    EXPECT_GT(before.residentKib, 0);
    // mallinfo2 does not see a sanitizer's allocator.
    EXPECT_NEAR(after.heapKib - before.heapKib, kWithSanitizersAllocator ? 0 : 40, 1);
}

}  // namespace
