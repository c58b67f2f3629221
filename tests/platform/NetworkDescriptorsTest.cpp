// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Network monitors in hosts that run out of descriptors, close the platform's, or fork.

#include "ChildScenario.h"
#include "HostDescriptors.h"
#include "NetworkFixture.h"
#include "Sanitizers.h"
#include "TemporaryFolder.h"

#include <gtest/gtest.h>

namespace {

/// Each new process has a network of its own.
class CNetworkDescriptorsTest : public CConnectionTest {
  protected:
    CTemporaryFolder m_Folder;
};

class CNetworkNumbersUsedAgainTest : public CNetworkDescriptorsTest,
                                     public testing::WithParamInterface<int> {
  protected:
    void SetUp() override {
        CConnectionTest::SetUp();
        if (kUnderThreadSanitizer) {
            GTEST_SKIP() << "a host that closes another thread's descriptors is a race";
        }
    }

    bool MonitorOneChange() {
        return Monitor(m_Callbacks) == 0 && AddRoute() && m_Callbacks.WaitFor(1);
    }
};

TEST_P(CNetworkNumbersUsedAgainTest, MonitorContinuesAndTouchesNothing) {
    ExpectInNewProcess([this] {
        const bool before = MonitorOneChange();
        const CHostDescriptors descriptors(m_Folder.Path(), GetParam());
        const bool continues = DeleteRoute() && m_Callbacks.WaitFor(2) && AddRoute() &&
                               m_Callbacks.WaitFor(3) && Unset() == 0;
        return before && continues && descriptors.AreUntouched();
    });
}

TEST_P(CNetworkNumbersUsedAgainTest, MonitorEndsAndTouchesNothing) {
    ExpectInNewProcess([this] {
        const bool before = MonitorOneChange();
        const CHostDescriptors descriptors(m_Folder.Path(), GetParam());
        return before && connection_destroy(m_hConnection) == 0 && descriptors.AreUntouched();
    });
}

INSTANTIATE_TEST_SUITE_P(Turns, CNetworkNumbersUsedAgainTest, testing::Range(0, 3));

TEST_F(CNetworkDescriptorsTest, MonitorIsRefusedWithoutDescriptors) {
    if (kUnderUndefinedBehaviourSanitizer) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    ExpectInNewProcess([this] {
        CHostDescriptors::RefuseMore();
        return Monitor(m_Callbacks) != 0 && connection_destroy(m_hConnection) == 0;
    });
}

TEST_F(CNetworkDescriptorsTest, ForkedChildMayDestroyTheConnection) {
    ExpectInNewProcess([this] {
        Monitor(m_Callbacks);
        const auto destroy = [this] { return connection_destroy(m_hConnection) == 0 ? 0 : 1; };
        return RunForked(destroy).exitCode == 0 && AddRoute() && m_Callbacks.WaitFor(1);
    });
}

}  // namespace
