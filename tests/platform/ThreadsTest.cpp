// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The platform's threads in a host's process: signal mask, faults, stack.

#include "ChildScenario.h"
#include "RegdbFixture.h"
#include "Sanitizers.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <string>

namespace {

class CPlatformThreadsTest : public CRegdbTest {
  protected:
    /// Runs work in a callback, on the settings thread. @return whether the callback returned
    bool RunOnPlatformThread(std::function<void()> work) {
        CCallbacks callbacks(std::move(work));
        Store(0);
        Watch(callbacks);
        Store(1);
        return callbacks.WaitFor(1) && Ignore() == 0;
    }
};

/// @return the signals that the calling thread blocks, as a mask
std::uint64_t BlockedSignals() {
    std::ifstream status("/proc/thread-self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("SigBlk:", 0) == 0) {
            return std::stoull(line.substr(7), nullptr, 16);
        }
    }
    return 0;
}

bool Blocks(std::uint64_t mask, int signal) {
    return (mask >> (signal - 1) & 1U) != 0;
}

TEST_F(CPlatformThreadsTest, BlockAllSignalsButSynchronousFaults) {
    std::uint64_t blocked = 0;
    ASSERT_TRUE(RunOnPlatformThread([&] { blocked = BlockedSignals(); }));
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS}) {
        EXPECT_FALSE(Blocks(blocked, fault)) << fault;
    }
    for (const int signal : {SIGUSR1, SIGCHLD, SIGALRM, SIGPROF, SIGTERM, SIGURG, SIGRTMIN}) {
        EXPECT_TRUE(Blocks(blocked, signal)) << signal;
    }
}

void WriteToAProtectedPage() {
    void* pPage = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile char*>(pPage) = 1;
}

TEST_F(CPlatformThreadsTest, LeaveAFaultToTheHostsHandler) {
    ExpectInNewProcess([this] {
        struct sigaction action {};
        action.sa_handler = [](int /*number*/) { _exit(0); };
        action.sa_flags = SA_ONSTACK;
        sigaction(SIGSEGV, &action, nullptr);
        RunOnPlatformThread(&WriteToAProtectedPage);
        return false;
    });
}

void UseSixtyFourKibibytesOfStack() {
    std::array<volatile char, std::size_t{64} * 1024> bytes;
    for (volatile char& byte : bytes) {
        byte = 1;
    }
}

TEST_F(CPlatformThreadsTest, HaveAStackThatDoesNotDependOnTheHostsDefault) {
    if (kWithSanitizersAllocator) {
        GTEST_SKIP() << "the sanitizer's own threads need more stack than the host's default";
    }
    ExpectInNewProcess([this] {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, PTHREAD_STACK_MIN);
        pthread_setattr_default_np(&attributes);
        return RunOnPlatformThread(&UseSixtyFourKibibytesOfStack);
    });
}

}  // namespace
