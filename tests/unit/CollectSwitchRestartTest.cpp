// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class CCollectSwitchRestartTest : public CCollectorTest {
  protected:
    /// Has the key change, and waits until both threads have ended this often in all.
    void ChangeKeyAndAwaitEnds(int value, std::size_t ends) {
        m_Platform.ChangeKey(value);
        ASSERT_TRUE(m_Platform.WaitForLog("Analyzer thread finished", ends));
        ASSERT_TRUE(m_Platform.WaitForLog("Sender thread finished", ends));
    }
};

// The threads are not restartable: each new one drains what has queued up and ends.
TEST_F(CCollectSwitchRestartTest, RecordsAfterASecondOnWaitForTheNextOnes) {
    Collector();
    ChangeKeyAndAwaitEnds(0, 1);
    ChangeKeyAndAwaitEnds(1, 2);
    StartPlayback();
    Event(99);
    ChangeKeyAndAwaitEnds(1, 3);
    ChangeKeyAndAwaitEnds(1, 4);
    EXPECT_THAT(SentEvents(), ElementsAre(1, 99));
}

TEST_F(CCollectSwitchRestartTest, KeyThatIsSetToOneAgainGoesOnCollecting) {
    StartPlayback();
    m_Platform.ChangeKey(1);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "wrong!! Thread already start"));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "wrong!! Thread already start"));
    EXPECT_EQ(m_Bus.Calls("GetPolicyInfo").size(), 2U);
    Event(99);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "99 0 0"));
}

TEST_F(CCollectSwitchRestartTest, PolicyThatIsRefusedLaterForgetsThePlayback) {
    StartPlayback();
    m_Bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, 0));
    m_Platform.ChangeKey(1);
    EXPECT_TRUE(NotLogged("wrong!! Thread already start"));
    Event(9);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Do not start play, so do not collect data 9"));
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0"));
}

TEST_F(CCollectSwitchRestartTest, KeyThatCanBeReadAgainGoesOnWithThePlayback) {
    StartPlayback();
    m_Platform.keyResult = -4;
    m_Platform.FireKeyChanged();
    Event(98);
    m_Platform.keyResult = 0;
    m_Platform.FireKeyChanged();
    Event(99);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "99 0 0"));
}

class CKeyChangeTest : public CCollectSwitchRestartTest, public testing::WithParamInterface<int> {};

TEST_P(CKeyChangeTest, ToOtherThanOneSwitchesOff) {
    StartPlayback();
    ChangeKeyAndAwaitEnds(GetParam(), 1);
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "m_isDataCollectOn : [0]"));
    Event(TY_EVENT_START);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0"));
}

INSTANTIATE_TEST_SUITE_P(Values, CKeyChangeTest, testing::Values(0, 2, -1));

TEST_F(CCollectSwitchRestartTest, StartDoesNothingWhileOff) {
    m_Platform.keyValue = 0;
    CollectorWithoutService().Start();
    EXPECT_THAT(m_Bus.Calls("GetPolicyInfo"), IsEmpty());
    EXPECT_TRUE(NotLogged("Sender thread start done"));
}

TEST_F(CCollectSwitchRestartTest, ResetForgetsThePlaybackAndNothingElse) {
    StartRendering();
    Event(TY_EVENT_PLAYBACK_TIME, 5000);
    EXPECT_TRUE(Collector().Execute(100, 0, ""));
    Collector().Reset();
    Event(TY_EVENT_SEEK);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Do not start play, so do not collect data 9"));
    m_Clock.SetRealTime(1000005, 0);
    Event(TY_EVENT_START);
    m_Clock.SetRealTime(1000016, 0);
    EXPECT_FALSE(Collector().Execute(100, 0, ""));
    const auto records = Reported();
    EXPECT_STREQ(records.back().content.title, "Film");
    EXPECT_STREQ(records.back().serviceID, "org.example.app");
    EXPECT_EQ(records.back().param1, -1);
}

TEST_F(CCollectSwitchRestartTest, WatchTellsWhetherThePlatformTookIt) {
    m_Platform.notifyResult = -8;
    EXPECT_FALSE(Collector().RegisterCollectOnOffCallback());
    m_Platform.notifyResult = 0;
    EXPECT_TRUE(Collector().RegisterCollectOnOffCallback());
    EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
    EXPECT_TRUE(Collector().UnRegisterCollectOnOffCallback());
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
    m_Platform.ignoreResult = -9;
    EXPECT_FALSE(Collector().UnRegisterCollectOnOffCallback());
}

}  // namespace
