// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Watches of settings in hosts that run out of descriptors, close the platform's, or fork.

#include "ChildScenario.h"
#include "HostDescriptors.h"
#include "RegdbFixture.h"
#include "Sanitizers.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

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
        CCallbacks callbacks([&] { watched = ChildCanWatch(); });
        Watch(callbacks);
        Store(1);
        return callbacks.WaitFor(1) && watched;
    });
}

}  // namespace
