// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Hosts that run out of descriptors, close the platform's, or fork.

#include "HostsDescriptors.h"
#include "PlatformHost.h"
#include "Sanitizers.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

using testing::ExitedWithCode;

namespace {

constexpr unsigned kSecondsUntilACallHangs = 20;

class CDescriptorsTest : public CPlatformHostTest {
  protected:
    /// Lets the process open no descriptor, or as many as before.
    static void LeaveDescriptors(bool leave) {
        static rlimit before{};
        if (!leave) {
            getrlimit(RLIMIT_NOFILE, &before);
        }
        const rlimit limit{leave ? before.rlim_cur : 3, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
};

TEST_F(CDescriptorsTest, KeyCanBeWatchedWithoutDescriptors) {
    if (kUnderUndefinedBehaviourSanitizer) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    const auto scenario = [this] {
        alarm(kSecondsUntilACallHangs);
        LeaveDescriptors(false);
        const bool watched = Watch() == 0;
        LeaveDescriptors(true);
        Store(1);
        _exit(watched && WaitForCalls(1) && Ignore() == 0 ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CDescriptorsTest, WatchEndsWithoutDescriptors) {
    if (kUnderUndefinedBehaviourSanitizer) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    const auto scenario = [this] {
        alarm(kSecondsUntilACallHangs);
        LeaveDescriptors(false);
        _exit(Watch() == 0 && Ignore() == 0 ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CDescriptorsTest, WatchGoesOnWhenTheHostHasClosedItsDescriptors) {
    const auto scenario = [this] {
        alarm(kSecondsUntilACallHangs);
        Watch();
        Store(1);
        const bool before = WaitForCalls(1);
        closefrom(3);
        Store(2);
        const bool after = WaitForCalls(2);
        Store(3);
        _exit(before && after && WaitForCalls(3) && Ignore() == 0 ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

class CNumbersUsedAgainTest : public CDescriptorsTest, public testing::WithParamInterface<int> {
  protected:
    void SetUp() override {
        if (kUnderThreadSanitizer) {
            GTEST_SKIP() << "a host that closes another thread's descriptors is a race";
        }
    }

    /// Has the key watched, and then other things open under all numbers.
    std::unique_ptr<CHostsDescriptors> WatchAndUseNumbersAgain() {
        alarm(kSecondsUntilACallHangs);
        Watch();
        Store(1);
        if (!WaitForCalls(1)) {
            _exit(1);
        }
        closefrom(3);
        return std::make_unique<CHostsDescriptors>(GetParam(), m_Folder.Path());
    }
};

TEST_P(CNumbersUsedAgainTest, WatchGoesOnAndTouchesNothing) {
    const auto scenario = [this] {
        const auto descriptors = WatchAndUseNumbersAgain();
        Store(2);
        const bool goesOn = WaitForCalls(2) && Ignore() == 0;
        _exit(!goesOn ? 2 : descriptors->AreUntouched() ? 0 : 3);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_P(CNumbersUsedAgainTest, WatchEndsAndTouchesNothing) {
    const auto scenario = [this] {
        const auto descriptors = WatchAndUseNumbersAgain();
        const bool ended = Ignore() == 0;
        _exit(!ended ? 2 : descriptors->AreUntouched() ? 0 : 3);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(Turns, CNumbersUsedAgainTest, testing::Range(0, 3));

/// @return the exit code of a forked child that does some work, 255 when it crashed or hung
template <class Work>
int RunInChild(Work work) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(kSecondsUntilACallHangs);
        _exit(work());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

TEST_F(CDescriptorsTest, ForkedChildMayWatchToo) {
    if (kUnderThreadSanitizer) {
        GTEST_SKIP() << "the sanitizer lets no forked child of several threads start one";
    }
    const auto scenario = [this] {
        Watch();
        Store(1);
        const bool before = WaitForCalls(1);
        const int failed = RunInChild([this] {
            const bool watched = Watch() == 0;
            Store(2);
            return watched && WaitForCalls(2) && Ignore() == 0 ? 0 : 1;
        });
        _exit(before && WaitForCalls(2) ? failed : 2);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CDescriptorsTest, ChildForkedInACallbackMayWatchToo) {
    if (kUnderThreadSanitizer) {
        GTEST_SKIP() << "the sanitizer lets no forked child of several threads start one";
    }
    const auto scenario = [this] {
        int failed = 2;
        Watch([&] {
            failed = RunInChild([this] {
                const bool watched = Watch() == 0;
                Store(2);
                return watched && WaitForCalls(1) ? 0 : 1;
            });
        });
        Store(1);
        _exit(WaitForCalls(1) ? failed : 3);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

}  // namespace
