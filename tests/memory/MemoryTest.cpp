// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The host program plays one session in seven phases: construction, connection, two playbacks, key
// off, key on, deletion. Each run lets one allocation fail and must end in an allowed way: the host
// goes on and a later collector delivers; or, with assertions, the library logs the failure and
// asserts; or, where GLib's allocations fail too, GLib aborts when the send timer is created.
//
// A run may take seconds when libdbus cannot connect. So by default a test tries a sample for 3 s:
// allocations in each phase, then at the borders of the phases, then ever finer spread ones.
// TALLYRA_TEST_WHOLE=1 tries all of them. The test prints how many it tried.

#include "ChildProcess.h"
#include "Eventually.h"
#include "PrivateBus.h"
#include "TableTest.h"
#include "TemporaryFolder.h"
#include "receiver/Receiver.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kBudget{3};
constexpr std::size_t kPhases = 7;
constexpr int kNothingFailed = 77;
constexpr int kKilledBySignal = 128;
constexpr int kLastEvent = 200;

/// Which allocations fail in which build, and what that may lead to.
struct Lack {
    const char* host;
    const char* duration;
    /// Distance of the allocations that a whole run tries: with a bus that cannot be read each
    /// attempt to connect takes 3 s.
    long step;
    bool asserts;
    bool ofGlibToo;
};

bool IsWhole() {
    const char* pWhole = std::getenv("TALLYRA_TEST_WHOLE");
    return pWhole != nullptr && *pWhole == '1';
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
    // The largest power of two comes first.
    for (long step = 1L << 30; step > 0; step /= 2) {
        for (long nth = step; nth <= total; nth += 2 * step) {
            order.push_back(nth);
        }
    }
    return order;
}

/// A host without memory, on a real bus with a service.
class CMemoryTest : public CTableTest<testing::Test, Lack> {
  protected:
    CMemoryTest() { m_Bus.BecomeSystemBus(); }

    /// Runs a host in which the nth allocation fails, with a new service.
    void RunHost(long nth) {
        m_pService.reset();
        m_pService = std::make_unique<receiver::CReceiver>(m_Bus.Address());
        m_pService->OwnName();
        CChildProcess host(
            {Case().host, std::to_string(nth), Case().duration},
            {.output = m_Folder.Path() / "phases", .error = m_Folder.Path() / "log"});
        m_nExitCode = host.WaitForExit(kPatience).value_or(-1);
        m_strLog = m_Folder.Read("log");
    }

    /// @return the last allocation of each phase when none fails
    std::vector<long> PhaseEnds() {
        RunHost(0);
        EXPECT_EQ(m_nExitCode, kNothingFailed);
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
        RunHost(nth);
        if (m_nExitCode == kNothingFailed) {
            return false;
        }
        EXPECT_THAT(m_pService->Problems(), testing::IsEmpty()) << "allocation " << nth;
        const std::string verdict = Judge(nth);
        EXPECT_NE(verdict, "") << "allocation " << nth << ", exit code " << m_nExitCode << "\n"
                               << m_strLog;
        ++m_Verdicts[verdict];
        m_Tried.insert(nth);
        return true;
    }

    void TrySample(const std::vector<long>& phaseEnds) {
        const auto end = Clock::now() + kBudget;
        constexpr std::size_t due = kPhases + 2;
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
    std::string Judge(long nth) {
        if (m_nExitCode == 0) {
            return HasDeliveredLater(nth) && HasGivenUpConnecting() ? "went on" : "";
        }
        if (Case().asserts && LogsAndAsserts()) {
            return "asserted";
        }
        return Case().ofGlibToo && IsAbortedByGlib() ? "aborted by GLib" : "";
    }

    bool Logs(const char* pText) const { return m_strLog.find(pText) != std::string::npos; }

    /// @return whether the library logged the allocation failure before its assertion failed
    bool LogsAndAsserts() const {
        return m_nExitCode == kKilledBySignal + SIGABRT &&
               m_strLog.find("Assertion `false' failed",
                             m_strLog.find("more free store space available. error : std::bad")) !=
                   std::string::npos;
    }

    /// GLib aborts on allocation failure; it prints a line if it can allocate that. The library
    /// calls GLib for the send timer, between the log lines of the policy and of the timer.
    bool IsAbortedByGlib() const {
        const int signal = m_nExitCode - kKilledBySignal;
        return (signal == SIGTRAP || signal == SIGABRT || signal == SIGSEGV) &&
               Logs("result : 1, pInfo : 1 ") && !Logs("CTYDataSender Time : 60000");
    }

    /// @return whether the collector that was made with memory delivered
    bool HasDeliveredLater(long nth) {
        const auto records = m_pService->Records();
        return !records.empty() && records.back().record.event == kLastEvent &&
               records.back().record.param1 == nth;
    }

    /// @return whether an allocation failure in the connection check, if any, ended collection
    bool HasGivenUpConnecting() const {
        return !Logs(" CheckConnection(") || Logs("Can't connect to service. Stop logging");
    }

    CPrivateBus m_Bus;
    CTemporaryFolder m_Folder;
    std::unique_ptr<receiver::CReceiver> m_pService;
    std::set<long> m_Tried;
    int m_nExitCode = -1;
    std::string m_strLog;
};

TEST_P(CMemoryTest, EveryAllocationInTurnFails) {
    const std::vector<long> phaseEnds = PhaseEnds();
    ASSERT_EQ(phaseEnds.size(), kPhases);
    if (IsWhole()) {
        for (long nth = 1; Try(nth); nth += Case().step) {
        }
    } else {
        TrySample(phaseEnds);
    }
    Report(phaseEnds.back());
    EXPECT_EQ(m_Verdicts["asserted"] > (IsWhole() ? 50 : 0), Case().asserts);
}

const Named<Lack> kLacks[] = {
    {"OfCppOnce", {MEMORY_HOST, "once", 1, true, false}},
    {"OfCppForGood", {MEMORY_HOST, "for-good", 1, true, false}},
#if defined(MALLOC_HOST)
    {"OfCOnce", {MALLOC_HOST, "once", 1, true, true}},
    {"OfCForGood", {MALLOC_HOST, "for-good", 5, true, true}},
#endif
#if defined(UNASSERTED_HOST)
    {"WithoutAssertionsOnce", {UNASSERTED_HOST, "once", 1, false, false}},
    {"WithoutAssertionsForGood", {UNASSERTED_HOST, "for-good", 1, false, false}},
#endif
};

INSTANTIATE_TEST_SUITE_P(Lacks, CMemoryTest, testing::ValuesIn(kLacks), kByName);

}  // namespace
