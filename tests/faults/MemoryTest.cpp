// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Every allocation of a collector's life in turn fails, once or with all later ones.
//
// The host program plays one session in seven phases: construction, connection, a playback, a
// second playback, key off, key on, deletion. Each run of the host lets one allocation fail and
// must end in one of the allowed ways: it goes on and a later collector delivers; or, in a build
// with assertions, the library logs the failure and asserts; or, where GLib's allocations fail too,
// GLib aborts inside the call that creates the send timer.
//
// The session makes hundreds of allocations, and a run may take seconds when libdbus cannot
// connect. So by default a test tries a sample: the first and the last allocation, one in the
// middle of each phase, then the borders of the phases and ever finer spread numbers until 3 s have
// passed. With TALLYRA_TEST_WHOLE=1 it tries all of them. It prints how many it tried.

#include "ChildProcess.h"
#include "Eventually.h"
#include "PrivateBus.h"
#include "TemporaryFolder.h"
#include "receiver/Receiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kBudget{3};
constexpr std::size_t kPhases = 7;
constexpr int kNothingFailed = 77;
constexpr int kKilledBySignal = 128;
constexpr int kLastEvent = 200;

/// Which allocations fail in which build, and what that may lead to.
struct Lack {
    const char* name;
    const char* host;
    const char* duration;
    /// Distance of the allocations that a whole run tries: with a bus that cannot be read each
    /// attempt to connect takes 3 s.
    long step;
    bool asserts;
    bool ofGlibToo;
};

void PrintTo(const Lack& lack, std::ostream* pOut) {
    *pOut << lack.name;
}

bool IsWhole() {
    const char* pWhole = std::getenv("TALLYRA_TEST_WHOLE");
    return pWhole != nullptr && std::string_view(pWhole) == "1";
}

/// @param phaseEnds  the last allocation of each phase
/// @return allocations to try, the most telling first
std::vector<long> InSampleOrder(const std::vector<long>& phaseEnds) {
    const long total = phaseEnds.back();
    std::vector<long> order{1, total};
    std::vector<long> borders;
    long first = 1;
    for (const long last : phaseEnds) {
        if (last >= first) {
            order.push_back((first + last) / 2);
            borders.insert(borders.end(), {first, last});
        }
        first = last + 1;
    }
    order.insert(order.end(), borders.begin(), borders.end());
    for (long step = static_cast<long>(std::bit_floor(static_cast<unsigned long>(total))); step > 0;
         step /= 2) {
        for (long nth = step; nth <= total; nth += 2 * step) {
            order.push_back(nth);
        }
    }
    return order;
}

/// How a host ended, and the library's log.
struct Outcome {
    int exitCode = -1;
    std::string log;
};

/// A host without memory, on a real bus with a service.
class CMemoryTest : public testing::TestWithParam<Lack> {
  protected:
    CMemoryTest() { m_Bus.BecomeSystemBus(); }

    /// Runs a host in which the nth allocation fails, with a new service.
    Outcome RunHost(long nth) {
        m_pService.reset();
        m_pService = std::make_unique<receiver::CReceiver>(m_Bus.Address());
        m_pService->OwnName();
        CChildProcess host(
            {GetParam().host, std::to_string(nth), GetParam().duration},
            {.output = m_Folder.Path() / "phases", .error = m_Folder.Path() / "log"});
        const int exitCode = host.WaitForExit(kPatience).value_or(-1);
        return {exitCode, m_Folder.Read("log")};
    }

    /// @return the last allocation of each phase when none fails
    std::vector<long> PhaseEnds() {
        EXPECT_EQ(RunHost(0).exitCode, kNothingFailed);
        std::istringstream phases(m_Folder.Read("phases"));
        std::vector<long> ends;
        for (long end = 0; phases >> end;) {
            ends.push_back(end);
        }
        return ends;
    }

    /// Lets one allocation fail and checks what came of it.
    /// @return false when the session made fewer allocations
    bool Try(long nth) {
        const Outcome outcome = RunHost(nth);
        if (outcome.exitCode == kNothingFailed) {
            return false;
        }
        EXPECT_THAT(m_pService->Problems(), testing::IsEmpty()) << "allocation " << nth;
        const std::string verdict = Judge(nth, outcome);
        EXPECT_NE(verdict, "") << "allocation " << nth << ", exit code " << outcome.exitCode << "\n"
                               << outcome.log;
        ++m_Verdicts[verdict];
        m_Tried.insert(nth);
        return true;
    }

    void TrySample(const std::vector<long>& phaseEnds) {
        const auto end = Clock::now() + kBudget;
        const std::size_t due = kPhases + 2;
        std::size_t runs = 0;
        for (const long nth : InSampleOrder(phaseEnds)) {
            if (runs >= due && Clock::now() >= end) {
                break;
            }
            runs += m_Tried.contains(nth) || Try(nth) ? 1 : 0;
        }
        EXPECT_GE(m_Tried.size(), kPhases);
    }

    void Report(long total) {
        std::printf("tried %zu of about %ld allocations", m_Tried.size(), total);
        for (const auto& [verdict, times] : m_Verdicts) {
            std::printf(", %s: %d", verdict.c_str(), times);
        }
        std::printf("\n");
    }

    std::map<std::string, int> m_Verdicts;

  private:
    /// @return a word for an allowed end, else an empty text
    std::string Judge(long nth, const Outcome& outcome) {
        if (outcome.exitCode == 0) {
            return HasDeliveredLater(nth) && HasGivenUpConnecting(outcome.log) ? "went on" : "";
        }
        if (GetParam().asserts && LogsAndAsserts(outcome)) {
            return "asserted";
        }
        return GetParam().ofGlibToo && IsAbortedByGlib(outcome) ? "aborted by GLib" : "";
    }

    /// @return whether the library logged the allocation failure before its assertion failed
    static bool LogsAndAsserts(const Outcome& outcome) {
        const std::size_t logged =
            outcome.log.find("more free store space available. error : std::bad");
        return outcome.exitCode == kKilledBySignal + SIGABRT && logged != std::string::npos &&
               outcome.log.find("Assertion `false' failed", logged) != std::string::npos;
    }

    /// GLib aborts on allocation failure; it prints a line if it can allocate that. The library
    /// calls GLib for the send timer, between the log lines of the policy and of the timer.
    static bool IsAbortedByGlib(const Outcome& outcome) {
        const int signal = outcome.exitCode - kKilledBySignal;
        return (signal == SIGTRAP || signal == SIGABRT || signal == SIGSEGV) &&
               outcome.log.find("result : 1, pInfo : 1 ") != std::string::npos &&
               outcome.log.find("CTYDataSender Time : 60000") == std::string::npos;
    }

    /// @return whether the collector that was made with memory delivered
    bool HasDeliveredLater(long nth) {
        const auto records = m_pService->Records();
        return !records.empty() && records.back().record.event == kLastEvent &&
               records.back().record.param1 == nth;
    }

    /// @return whether an allocation failure in the connection check, if any, ended collection
    static bool HasGivenUpConnecting(const std::string& log) {
        return log.find(" CheckConnection(") == std::string::npos ||
               log.find("Can't connect to service. Stop logging") != std::string::npos;
    }

    CPrivateBus m_Bus;
    CTemporaryFolder m_Folder;
    std::unique_ptr<receiver::CReceiver> m_pService;
    std::set<long> m_Tried;
};

TEST_P(CMemoryTest, EveryAllocationInTurnFails) {
    const std::vector<long> phaseEnds = PhaseEnds();
    ASSERT_EQ(phaseEnds.size(), kPhases);
    if (IsWhole()) {
        for (long nth = 1; Try(nth); nth += GetParam().step) {
        }
    } else {
        TrySample(phaseEnds);
    }
    Report(phaseEnds.back());
    EXPECT_EQ(m_Verdicts["asserted"] > (IsWhole() ? 50 : 0), GetParam().asserts);
}

const Lack kLacks[] = {
    {"OfCppOnce", MEMORY_HOST, "once", 1, true, false},
    {"OfCppForGood", MEMORY_HOST, "for-good", 1, true, false},
#if defined(MALLOC_HOST)
    {"OfCOnce", MALLOC_HOST, "once", 1, true, true},
    {"OfCForGood", MALLOC_HOST, "for-good", 5, true, true},
#endif
#if defined(UNASSERTED_HOST)
    {"WithoutAssertionsOnce", UNASSERTED_HOST, "once", 1, false, false},
    {"WithoutAssertionsForGood", UNASSERTED_HOST, "for-good", 1, false, false},
#endif
};

INSTANTIATE_TEST_SUITE_P(Lacks, CMemoryTest, testing::ValuesIn(kLacks),
                         [](const auto& lack) { return lack.param.name; });

}  // namespace
