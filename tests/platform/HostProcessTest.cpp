// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The settings watch and its thread in a host's process: descriptors, forks, signals and stack.

#include "ChildScenario.h"
#include "HostDescriptors.h"
#include "Proc.h"
#include "RegdbFixture.h"
#include "Sanitizers.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <functional>

namespace {

class CDescriptorsTest : public CRegdbTest {
  protected:
    CDescriptorsTest() { Store(0); }

    /// Watches the key and has one change reported.
    bool WatchOneChange() {
        Watch(m_Callbacks);
        Store(1);
        return m_Callbacks.WaitFor(1);
    }
};

TEST_F(CDescriptorsTest, WatchWithoutDescriptorsPollsAndEnds) {
    if (kUnderUndefinedBehaviourSanitizer) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    ExpectInNewProcess([this] {
        const rlimit before = CHostDescriptors::RefuseMore();
        const bool ended = Watch(m_Callbacks) == 0 && Ignore() == 0;
        const bool watched = Watch(m_Callbacks) == 0;
        setrlimit(RLIMIT_NOFILE, &before);
        Store(1);
        return ended && watched && m_Callbacks.WaitFor(1) && Ignore() == 0;
    });
}

TEST_F(CDescriptorsTest, WatchContinuesWhenTheHostHasClosedItsDescriptors) {
    ExpectInNewProcess([this] {
        const bool before = WatchOneChange();
        closefrom(3);
        Store(2);
        const bool after = m_Callbacks.WaitFor(2);
        Store(3);
        return before && after && m_Callbacks.WaitFor(3) && Ignore() == 0;
    });
}

class CNumbersUsedAgainTest : public CDescriptorsTest, public testing::WithParamInterface<int> {
  protected:
    void SetUp() override {
        if (kUnderThreadSanitizer) {
            GTEST_SKIP() << "a host that closes another thread's descriptors is a race";
        }
    }
};

TEST_P(CNumbersUsedAgainTest, WatchContinuesAndTouchesNothing) {
    ExpectInNewProcess([this] {
        const bool before = WatchOneChange();
        const CHostDescriptors descriptors(m_Folder.Path(), GetParam());
        Store(2);
        const bool continues = m_Callbacks.WaitFor(2) && Ignore() == 0;
        return before && continues && descriptors.AreUntouched();
    });
}

TEST_P(CNumbersUsedAgainTest, WatchEndsAndTouchesNothing) {
    ExpectInNewProcess([this] {
        const bool before = WatchOneChange();
        const CHostDescriptors descriptors(m_Folder.Path(), GetParam());
        return before && Ignore() == 0 && descriptors.AreUntouched();
    });
}

INSTANTIATE_TEST_SUITE_P(Turns, CNumbersUsedAgainTest, testing::Range(0, 3));

class CForkedChildTest : public CDescriptorsTest {
  protected:
    void SetUp() override {
        if (kUnderThreadSanitizer) {
            GTEST_SKIP() << "the sanitizer lets no forked child of several threads start one";
        }
    }

    /// @return whether a forked child can watch the key
    bool ChildCanWatch() {
        return RunForked([this] {
                   CCallbacks own;
                   const bool watched = Watch(own) == 0;
                   Store(2);
                   return watched && own.WaitFor(1) && Ignore() == 0 ? 0 : 1;
               }).exitCode == 0;
    }
};

TEST_F(CForkedChildTest, MayWatchToo) {
    ExpectInNewProcess(
        [this] { return WatchOneChange() && ChildCanWatch() && m_Callbacks.WaitFor(2); });
}

TEST_F(CForkedChildTest, ForkedInACallbackMayWatchToo) {
    ExpectInNewProcess([this] {
        bool watched = false;
        CCallbacks callbacks([&] { watched = watched || ChildCanWatch(); });
        Watch(callbacks);
        Store(1);
        return callbacks.WaitFor(1) && Ignore() == 0 && watched;
    });
}

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

TEST_F(CPlatformThreadsTest, BlockAllSignalsButSynchronousFaults) {
    const int faults[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS};
    const int others[] = {SIGUSR1, SIGCHLD, SIGALRM, SIGPROF, SIGTERM, SIGURG, SIGRTMIN};
    const auto checkMask = [&] {
        for (const int signal : faults) {
            EXPECT_FALSE(ThreadBlocks("/proc/thread-self", signal)) << signal;
        }
        for (const int signal : others) {
            EXPECT_TRUE(ThreadBlocks("/proc/thread-self", signal)) << signal;
        }
    };
    EXPECT_TRUE(RunOnPlatformThread(checkMask));
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
