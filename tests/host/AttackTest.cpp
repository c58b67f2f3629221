// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildProcess.h"
#include "HostFixture.h"
#include "Sanitizers.h"

#include <poll.h>

namespace {

using namespace std::chrono_literals;

/// Runs the program that attacks the library, see AttackMain.cpp. It reports on standard error
/// what does not hold.
class CAttackTest : public CHostTest {
  protected:
    static int Attack(const std::string& name) { return Wait(CChildProcess({ATTACK, name})); }

    static int Wait(CChildProcess&& attack) { return attack.WaitForExit(160s).value_or(-1); }
};

class CEachAttackTest : public CAttackTest, public testing::WithParamInterface<const char*> {};

TEST_P(CEachAttackTest, LeavesTheHostUnharmed) {
    EXPECT_EQ(Attack(GetParam()), 0);
    EXPECT_TRUE(m_Service.Problems().empty());
}

INSTANTIATE_TEST_SUITE_P(Of, CEachAttackTest,
                         testing::Values("fork-delete", "fork-exit", "fork-report", "fork-make",
                                         "close-all", "reuse-numbers", "cancel", "tiny-stack",
                                         "fault", "sigpipe-handler"));

TEST_F(CAttackTest, MayReportInAForkedChildAndNothingOfItArrives) {
    EXPECT_EQ(Attack("fork-report"), 0);
    // START and 5 events before the fork; after it START again, which is an error, and 30 events.
    EXPECT_EQ(m_Service.Records().size(), 37U);
}

TEST_F(CAttackTest, MayPlayAUrlOfFiveMebibytes) {
    m_Service.ReleaseName();
    EXPECT_EQ(Attack("long-url"), 0);
}

TEST_F(CAttackTest, MayUseUpAllDescriptorsBeforeTheServiceAppears) {
    if (kUnderUndefinedBehaviourSanitizer) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    m_Service.ReleaseName();
    std::array<int, 2> ready{};
    ASSERT_EQ(pipe2(ready.data(), O_CLOEXEC), 0);
    CChildProcess attack({ATTACK, "use-up", std::to_string(ready[1])}, {.keepFds = {ready[1]}});
    pollfd waited{ready[0], POLLIN, 0};
    EXPECT_EQ(poll(&waited, 1, 30000), 1);
    m_Service.OwnName();
    EXPECT_EQ(Wait(std::move(attack)), 0);
    close(ready[0]);
    close(ready[1]);
}

}  // namespace
