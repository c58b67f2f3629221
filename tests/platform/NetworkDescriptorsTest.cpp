// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Hosts that run out of descriptors, close those of a network monitor, or fork.

#include "HostsDescriptors.h"
#include "NetworkFixture.h"
#include "Sanitizers.h"
#include "TemporaryFolder.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

using testing::ExitedWithCode;

namespace {

constexpr unsigned kSecondsUntilACallHangs = 20;

/// EXPECT_EXIT runs each scenario in a process of its own, with a network of its own.
class CNetworkDescriptorsTest : public CConnectionTest {
  protected:
    CNetworkDescriptorsTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    int Monitor() {
        alarm(kSecondsUntilACallHangs);
        return connection_set_network_monitor_cb(m_hConnection, &CMonitor::OnState, &m_Monitor);
    }

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

    /// Has the network monitored, and then other things open under all numbers.
    std::unique_ptr<CHostsDescriptors> MonitorAndUseNumbersAgain() {
        if (Monitor() != 0 || !Ip("route add default via 10.77.1.2 dev va") ||
            !m_Monitor.WaitFor(1)) {
            _exit(1);
        }
        closefrom(3);
        return std::make_unique<CHostsDescriptors>(GetParam(), m_Folder.Path());
    }
};

TEST_P(CNetworkNumbersUsedAgainTest, MonitorGoesOnAndTouchesNothing) {
    const auto scenario = [this] {
        const auto descriptors = MonitorAndUseNumbersAgain();
        const bool goesOn = Ip("route del default") && m_Monitor.WaitFor(2) &&
                            Ip("route add default via 10.77.1.2 dev va") && m_Monitor.WaitFor(3);
        const bool ended = connection_unset_network_monitor_cb(m_hConnection) == 0;
        _exit(!goesOn ? 2 : ended && descriptors->AreUntouched() ? 0 : 3);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_P(CNetworkNumbersUsedAgainTest, MonitorEndsAndTouchesNothing) {
    const auto scenario = [this] {
        const auto descriptors = MonitorAndUseNumbersAgain();
        const bool ended = connection_destroy(m_hConnection) == 0;
        _exit(ended && descriptors->AreUntouched() ? 0 : 2);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CNetworkDescriptorsTest, MonitorIsRefusedWithoutDescriptors) {
    if (kUnderUndefinedBehaviourSanitizer) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    const auto scenario = [this] {
        const rlimit none{3, 3};
        setrlimit(RLIMIT_NOFILE, &none);
        _exit(Monitor() != 0 && connection_destroy(m_hConnection) == 0 ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CNetworkDescriptorsTest, ForkedChildMayDestroyTheConnection) {
    const auto scenario = [this] {
        Monitor();
        const pid_t child = fork();
        if (child == 0) {
            alarm(kSecondsUntilACallHangs);
            _exit(connection_destroy(m_hConnection) == 0 ? 0 : 1);
        }
        int status = 1;
        waitpid(child, &status, 0);
        Ip("route add default via 10.77.1.2 dev va");
        _exit(status == 0 && m_Monitor.WaitFor(1) ? 0 : 2);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(Turns, CNetworkNumbersUsedAgainTest, testing::Range(0, 3));

}  // namespace
