// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

namespace {

constexpr int kCode = 100;

class CExecuteTest : public CCollectorTest {
  protected:
    void SetTime(int secondsAfterStart) { m_Clock.SetRealTime(kNow + secondsAfterStart, 0); }

    bool At(int secondsAfterStart, int code = kCode) {
        SetTime(secondsAfterStart);
        return Collector().Execute(code, 5, "text");
    }
};

/// Events at a second after the first START, then a call at another.
struct Call {
    int second;
    bool taken;
    int code = kCode;
    int eventsAt = 0;
    Reports events{};
};
using CExecuteLimitTest = CTableTest<CExecuteTest, std::vector<Call>>;

TEST_P(CExecuteLimitTest, TakesOrRefuses) {
    StartPlayback();
    for (const Call& call : Case()) {
        SetTime(call.eventsAt);
        ReportAll(call.events);
        EXPECT_EQ(At(call.second, call.code), call.taken) << call.second << " s after START";
    }
}

const Reports kRestart{{TY_EVENT_STOP}, {TY_EVENT_START}};

const Named<std::vector<Call>> kCalls[] = {
    {"EverythingInTheFirstTenSeconds", {{5, true}, {5, true}, {10, true}, {10, true}}},
    {"EachCodeOnceFromTheEleventhSecondOn", {{10, true}, {11, false}, {11, true, kCode + 1}}},
    {"ACodeAgainAfterSixtySeconds", {{11, true}, {41, false}, {70, false}, {71, true}}},
    {"RefusedCallDoesNotRenewTheLimit", {{20, true}, {60, false}, {80, true}}},
    {"FreeCallCountsForTheLimitThatFollows", {{5, true}, {64, false}, {65, true}}},
    {"LimitOutlivesThePlayback", {{20, true}, {41, false, kCode, 30, kRestart}, {80, true}}},
    {"NewStartFreesTheNextTenSeconds",
     {{20, true}, {21, false}, {22, true, kCode, 21, kRestart}, {31, true}}},
    {"SecondStartOfAPlaybackFreesNothing",
     {{20, true}, {21, false, kCode, 20, {{TY_EVENT_START}}}}},
    {"ClockSetBackCountsAsALongTime", {{5, true}, {-100, true}, {-99, false}}},
    {"CodesThatFitAByte",
     {{1, true, 0}, {1, true, 255}, {1, false, 256}, {1, false, -1}, {1, false, INT_MIN}}},
};
INSTANTIATE_TEST_SUITE_P(Table, CExecuteLimitTest, testing::ValuesIn(kCalls), kByName);

TEST_F(CExecuteTest, RecordCarriesValueAndTextButNotTheContentsCustomInfo) {
    std::string url = "u";
    CTYContentInfo info(&url, 0);
    info.SetCustomInfo("of the content");
    Collector().SetContentInfo(&info);
    Event(TY_EVENT_START);
    EXPECT_TRUE(Collector().Execute(kCode, -5, std::string(5000, 'x')));
    EXPECT_TRUE(Debug("[EXCUTE] event type : 100"));
    EXPECT_TRUE(Collector().Execute(kCode, 0, ""));
    Event(kFreeEvent);
    const auto records = Reported();
    EXPECT_EQ(ToReports(records), (Reports{{TY_EVENT_START}, {kCode, -5}, {kCode}, {kFreeEvent}}));
    EXPECT_EQ(std::string(records.at(1).content.customInfo), std::string(4095, 'x'));
    EXPECT_STREQ(records.at(2).content.customInfo, "");
    EXPECT_STREQ(records.at(3).content.customInfo, "of the content");
}

TEST_F(CExecuteTest, RefusedCallsAreLoggedAndLeaveNoRecord) {
    StartPlayback();
    At(20);
    At(21);
    At(22, 256);
    EXPECT_TRUE(Debug("too many [100] event"));
    EXPECT_TRUE(Error("Invalid event type"));
    EXPECT_EQ(ReportedEvents(), (Reports{{TY_EVENT_START}, {kCode, 5}}));
}

TEST_F(CExecuteTest, ClockThatFailsRefuses) {
    StartPlayback();
    m_Clock.FailRealTime(true);
    EXPECT_FALSE(Collector().Execute(kCode, 5, "text"));
    EXPECT_TRUE(Error("clock_gettime failed!!!"));
    EXPECT_TRUE(Debug("too many [100] event"));
}

TEST_F(CExecuteTest, OfTwoThreadsWithTheSameCodeOnePasses) {
    StartPlayback();
    for (int second = 60; second < 60 * 50; second += 60) {
        SetTime(second);
        std::atomic<int> taken = 0;
        const auto execute = [&] { taken += Collector().Execute(kCode, 5, "") ? 1 : 0; };
        std::thread other(execute);
        execute();
        other.join();
        ASSERT_EQ(taken, 1) << second;
    }
}

TEST_F(CExecuteTest, RecordThatNoThreadWillSendIsNotReportedAsTaken) {
    // After off and on again, the threads of a collector end as soon as they start.
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
    EXPECT_TRUE(Error("no analyzer thread, drop event 100"));
    // A deleted collector does not free queued records; two more starts empty both queues.
    EXPECT_TRUE(restart(3));
    EXPECT_TRUE(restart(4));
}

TEST_F(CExecuteTest, PlaybackIsCheckedBeforeTheCode) {
    SetContent();
    EXPECT_FALSE(Collector().Execute(256, 0, ""));
    EXPECT_TRUE(Error("Do not start play, so do not collect data"));
    EXPECT_TRUE(NotLogged("Invalid event type"));
}

TEST_F(CExecuteTest, SwitchIsCheckedBeforeThePlayback) {
    m_Platform.keyValue = 0;
    EXPECT_FALSE(CollectorWithoutService().Execute(kCode, 0, ""));
    EXPECT_TRUE(Debug("m_isDataCollectOn : [0]"));
    EXPECT_TRUE(NotLogged("Do not start play, so do not collect data"));
}

TEST_F(CExecuteTest, CodesOfEventsBypassTheirRules) {
    StartPlayback();
    Event(TY_EVENT_PAUSE);
    for (const int code : {TY_EVENT_PLAYBACK_TIME, TY_EVENT_START, TY_EVENT_STOP}) {
        EXPECT_TRUE(Collector().Execute(code, 500, ""));
    }
    Event(TY_EVENT_SEEK, 4);
    EXPECT_EQ(ReportedEvents(), (Reports{{TY_EVENT_START},
                                         {TY_EVENT_PAUSE, -1},
                                         {TY_EVENT_PLAYBACK_TIME, 500},
                                         {TY_EVENT_START, 500},
                                         {TY_EVENT_STOP, 500},
                                         {TY_EVENT_SEEK, -1, 4}}));
}

}  // namespace
