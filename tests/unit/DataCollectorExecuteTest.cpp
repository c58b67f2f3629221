// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <thread>

using testing::ElementsAre;

namespace {

class CExecuteLimitsTest : public CCollectorTest {
  protected:
    void SetTime(int secondsAfterStart) { m_Clock.SetRealTime(1000000 + secondsAfterStart, 0); }

    bool At(int secondsAfterStart, int code = 100) {
        SetTime(secondsAfterStart);
        return Collector().Execute(code, 5, "text");
    }
};

TEST_F(CExecuteLimitsTest, TenthSecondIsFreeAndTheEleventhIsNot) {
    StartPlayback();
    EXPECT_TRUE(At(10));
    EXPECT_TRUE(At(10));
    EXPECT_FALSE(At(11));
    EXPECT_TRUE(At(11, 101));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "too many [100] event"));
}

TEST_F(CExecuteLimitsTest, FiftyNineSecondsAreTooShortAndSixtyAreNot) {
    StartPlayback();
    EXPECT_TRUE(At(11));
    EXPECT_FALSE(At(70));
    EXPECT_TRUE(At(71));
}

TEST_F(CExecuteLimitsTest, SameCodeThirtySecondsApartIsRefusedTwentySecondsAfterStart) {
    StartPlayback();
    EXPECT_TRUE(At(20));
    EXPECT_FALSE(At(50));
}

TEST_F(CExecuteLimitsTest, RefusedCallDoesNotRenewTheLimit) {
    StartPlayback();
    EXPECT_TRUE(At(20));
    EXPECT_FALSE(At(60));
    EXPECT_TRUE(At(80));
}

TEST_F(CExecuteLimitsTest, FreeCallsCountForTheLimitThatFollows) {
    StartPlayback();
    EXPECT_TRUE(At(5));
    EXPECT_FALSE(At(64));
    EXPECT_TRUE(At(65));
}

TEST_F(CExecuteLimitsTest, OfTwoThreadsWithTheSameCodeOneComesThrough) {
    StartPlayback();
    for (int second = 60; second < 60 * 50; second += 60) {
        SetTime(second);
        std::atomic<int> taken = 0;
        const auto execute = [&] { taken += Collector().Execute(100, 5, "") ? 1 : 0; };
        std::thread other(execute);
        execute();
        other.join();
        ASSERT_EQ(taken, 1) << second;
    }
}

TEST_F(CExecuteLimitsTest, RecordThatNoThreadTakesIsNotSaidToBeTaken) {
    // The threads of a collector that was switched off and on again end as soon as they start.
    const auto restart = [this](std::size_t times) {
        m_Platform.ChangeKey(1);
        return m_Platform.WaitForLog("Analyzer thread finished", times) &&
               m_Platform.WaitForLog("Sender thread finished", times);
    };
    Collector();
    m_Platform.ChangeKey(0);
    ASSERT_TRUE(restart(2));
    StartPlayback();
    int taken = 0;
    for (int i = 0; i < 250; ++i) {
        taken += At(0) ? 1 : 0;
    }
    EXPECT_EQ(taken, 199);
    // What waits in either queue when a collector goes is not freed: two more starts work it off.
    EXPECT_TRUE(restart(3));
    EXPECT_TRUE(restart(4));
}

TEST_F(CExecuteLimitsTest, LimitOutlivesThePlayback) {
    StartPlayback();
    EXPECT_TRUE(At(20));
    Event(TY_EVENT_STOP);
    SetTime(30);
    Event(TY_EVENT_START);
    EXPECT_FALSE(At(41));
    EXPECT_TRUE(At(80));
}

TEST_F(CExecuteLimitsTest, NewStartFreesTheNextTenSeconds) {
    StartPlayback();
    EXPECT_TRUE(At(20));
    EXPECT_FALSE(At(21));
    Event(TY_EVENT_STOP);
    Event(TY_EVENT_START);
    EXPECT_TRUE(At(22));
    EXPECT_TRUE(At(31));
}

TEST_F(CExecuteLimitsTest, DuplicatedStartFreesNothing) {
    StartPlayback();
    EXPECT_TRUE(At(20));
    Event(TY_EVENT_START);
    EXPECT_FALSE(At(21));
}

TEST_F(CExecuteLimitsTest, ClockThatIsSetBackCountsAsALongTime) {
    StartPlayback();
    EXPECT_TRUE(At(5));
    EXPECT_TRUE(At(-100));
    EXPECT_FALSE(At(-99));
}

TEST_F(CExecuteLimitsTest, ClockThatFailsRefuses) {
    StartPlayback();
    m_Clock.FailRealTime(true);
    EXPECT_FALSE(Collector().Execute(100, 5, "text"));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "clock_gettime failed!!!"));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "too many [100] event"));
}

TEST_F(CExecuteLimitsTest, RefusedCallsLeaveNoRecord) {
    StartPlayback();
    At(20);
    At(21);
    At(22, 256);
    At(22, INT_MIN);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "100 5 0"));
}

TEST_F(CExecuteLimitsTest, TextReplacesTheCustomInfoOfItsRecordOnly) {
    std::string url = "u";
    CTYContentInfo info(&url, 0);
    info.SetCustomInfo("of the content");
    Collector().SetContentInfo(&info);
    Event(TY_EVENT_START);
    EXPECT_TRUE(Collector().Execute(100, 0, ""));
    Event(99);
    const auto records = Reported();
    EXPECT_STREQ(records.at(0).content.customInfo, "of the content");
    EXPECT_STREQ(records.at(1).content.customInfo, "");
    EXPECT_STREQ(records.at(2).content.customInfo, "of the content");
}

TEST_F(CExecuteLimitsTest, PlaybackIsAskedForBeforeTheCode) {
    SetContent();
    EXPECT_FALSE(Collector().Execute(256, 0, ""));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Do not start play, so do not collect data"));
    EXPECT_TRUE(NotLogged("Invalid event type"));
}

TEST_F(CExecuteLimitsTest, SwitchIsAskedForBeforeThePlayback) {
    m_Platform.keyValue = 0;
    EXPECT_FALSE(CollectorWithoutService().Execute(100, 0, ""));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "m_isDataCollectOn : [0]"));
    EXPECT_TRUE(NotLogged("Do not start play, so do not collect data"));
}

TEST_F(CExecuteLimitsTest, CodesOfEventsBypassTheirRules) {
    StartPlayback();
    Event(TY_EVENT_PAUSE);
    for (const int code : {TY_EVENT_PLAYBACK_TIME, TY_EVENT_START, TY_EVENT_STOP}) {
        EXPECT_TRUE(Collector().Execute(code, 500, ""));
    }
    Event(TY_EVENT_SEEK, 4);
    EXPECT_THAT(ReportedTexts(),
                ElementsAre("1 0 0", "3 -1 0", "8 500 0", "1 500 0", "2 500 0", "9 -1 4"));
}

}  // namespace
