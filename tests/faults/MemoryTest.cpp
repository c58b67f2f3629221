// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildProcess.h"
#include "PrivateBus.h"
#include "receiver/Receiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <fcntl.h>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

namespace {

constexpr std::chrono::seconds kPatience{60};
constexpr int kNothingFailed = 77;
constexpr int kKilledBySignal = 128;
constexpr int kLastEvent = 200;

/// How memory runs out, and what may come of it.
struct Lack {
    const char* name;
    const char* host;
    const char* duration;
    /// Every so manyth allocation is tried: a bus that cannot be read takes three seconds to give
    /// up.
    long step;
    bool asserts;
    bool ofGlibToo;
};

void PrintTo(const Lack& lack, std::ostream* pOut) {
    *pOut << lack.name;
}

/// What a host ended with.
struct Outcome {
    int exitCode = -1;
    std::string output;
};

/// Reads to the end, or until the time is over.
std::string ReadAll(int fd, std::chrono::milliseconds within) {
    const auto end = std::chrono::steady_clock::now() + within;
    std::string text;
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd waited = {fd, POLLIN, 0};
        std::array<char, 4096> read{};
        if (left.count() <= 0 || poll(&waited, 1, static_cast<int>(left.count())) <= 0) {
            return text;
        }
        const ssize_t count = ::read(fd, read.data(), read.size());
        if (count <= 0) {
            return text;
        }
        text.append(read.data(), static_cast<std::size_t>(count));
    }
}

/// A library whose memory runs out, on a real bus with a service.
class CMemoryTest : public testing::TestWithParam<Lack> {
  protected:
    CMemoryTest() { m_Bus.BecomeSystemBus(); }

    /// Runs a host in which the nth allocation fails, with a service of its own.
    Outcome RunHost(long nth) {
        StartService();
        std::array<int, 2> output{};
        if (pipe2(output.data(), O_CLOEXEC) != 0) {
            return {};
        }
        CChildProcess host(
            {GetParam().host, std::to_string(nth), GetParam().duration, std::to_string(output[1])},
            {.keepFds = {output[1]}});
        close(output[1]);
        Outcome outcome;
        outcome.output = ReadAll(output[0], kPatience);
        close(output[0]);
        outcome.exitCode = host.WaitForExit(kPatience).value_or(-1);
        return outcome;
    }

    /// Has a service that has got nothing yet take the place of the one before.
    void StartService() {
        if (m_pService != nullptr) {
            m_pService->ReleaseName();
        }
        m_pService = std::make_unique<receiver::CReceiver>(m_Bus.Address());
        m_pService->OwnName();
    }

    /// @return in a word what a host ended with; empty when it is none of what may be
    std::string Judge(long nth, const Outcome& outcome) {
        if (outcome.exitCode == 0) {
            return HasLivedOn(nth) && HasGivenUpConnecting(outcome.output) ? "went on" : "";
        }
        if (GetParam().asserts && SaysSoAndAsserts(outcome)) {
            return "asserted";
        }
        return GetParam().ofGlibToo && IsEndedByGlib(outcome) ? "ended by GLib" : "";
    }

    CPrivateBus m_Bus;
    std::unique_ptr<receiver::CReceiver> m_pService;

  private:
    /// @return whether the library logged the lack, and its assertion failed behind that
    static bool SaysSoAndAsserts(const Outcome& outcome) {
        const std::string& output = outcome.output;
        const std::size_t told = output.find("more free store space available. error : std::bad");
        return outcome.exitCode == kKilledBySignal + SIGABRT && told != std::string::npos &&
               output.find("Assertion `false' failed", told) != std::string::npos;
    }

    /// GLib ends a process that has no memory for it, with a line of its own if there is memory for
    /// that. The library needs it for the timer, between the policy and the line about the timer.
    static bool IsEndedByGlib(const Outcome& outcome) {
        const int signal = outcome.exitCode - kKilledBySignal;
        return (signal == SIGTRAP || signal == SIGABRT || signal == SIGSEGV) &&
               outcome.output.find("result : 1, pInfo : 1 ") != std::string::npos &&
               outcome.output.find("CTYDataSender Time : 60000") == std::string::npos;
    }

    /// @return whether the collector that came behind the lack delivered
    bool HasLivedOn(long nth) {
        const auto records = m_pService->Records();
        return !records.empty() && records.back().record.event == kLastEvent &&
               records.back().record.param1 == nth;
    }

    /// @return whether a lack in the connection check, if there was one, ended collection
    static bool HasGivenUpConnecting(const std::string& output) {
        return output.find(" CheckConnection(") == std::string::npos ||
               output.find("Can't connect to service. Stop logging") != std::string::npos;
    }
};

TEST_P(CMemoryTest, EveryAllocationInTurnFails) {
    std::map<std::string, int> count;
    for (long nth = 1;; nth += GetParam().step) {
        const Outcome outcome = RunHost(nth);
        if (outcome.exitCode == kNothingFailed) {
            break;
        }
        EXPECT_THAT(m_pService->Problems(), testing::IsEmpty()) << "allocation " << nth;
        const std::string verdict = Judge(nth, outcome);
        EXPECT_NE(verdict, "") << "allocation " << nth << ", exit code " << outcome.exitCode << "\n"
                               << outcome.output;
        ++count[verdict];
    }
    for (const auto& [verdict, times] : count) {
        std::printf("%s: %d\n", verdict.c_str(), times);
    }
    EXPECT_EQ(count["asserted"] > 50, GetParam().asserts);
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
