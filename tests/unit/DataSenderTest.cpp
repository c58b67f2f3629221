// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "SenderFixture.h"

#include <gmock/gmock.h>

#include <future>
#include <thread>

using testing::ElementsAre;

namespace {

using CDataSenderTest = CSenderTest;

TEST_F(CDataSenderTest, CreationIsLoggedAndConnects) {
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTagUtil, "Create >>"));
    EXPECT_EQ(m_Bus.Count("OpenPrivate"), 1U);
    m_Sender.reset();
    EXPECT_TRUE(Says("Destroy >>"));
    EXPECT_EQ(m_Bus.Count("Close"), 1U);
}

TEST_F(CDataSenderTest, NothingQueuedIsNothingSent) {
    EXPECT_EQ(m_Sender->SendData(), 0);
    EXPECT_EQ(m_Bus.Calls().size(), 0U);
    EXPECT_TRUE(NotLogged("CTYDataSender SendData start "));
}

TEST_F(CDataSenderTest, BatchHoldsRecordsAndUrlsInOrder) {
    Queue(1, TY_EVENT_START, "a.mp4");
    Queue(1, TY_EVENT_RENDER_START, "b.mp4");
    EXPECT_EQ(m_Sender->SendData(), 1);
    EXPECT_THAT(SentEvents(), ElementsAre(TY_EVENT_START, TY_EVENT_RENDER_START));
    EXPECT_THAT(SentUrls(), ElementsAre("a.mp4", "b.mp4"));
    EXPECT_EQ(m_Sender->GetQueueSize(), 0);
    for (const char* text :
         {"CTYDataSender SendData start ", "Send Queue Size : 2 ", "result : 1"}) {
        EXPECT_TRUE(Says(text));
    }
}

TEST_F(CDataSenderTest, ClearDropsEverythingQueued) {
    Queue(5);
    m_Sender->ClearCollectedData();
    EXPECT_EQ(m_Sender->GetQueueSize(), 0);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "drop collected data"));
}

TEST_F(CDataSenderTest, PolicyRequestPassesThrough) {
    std::string app = "org.example.app";
    int info = -1;
    m_Bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, 7));
    EXPECT_EQ(m_Sender->GetPolicyInfo(app, &info), 1);
    EXPECT_EQ(info, 7);
    EXPECT_TRUE(Says("result : 1, pInfo : 7 "));
    m_Bus.SetReply("GetPolicyInfo", {{}, "no"});
    EXPECT_EQ(m_Sender->GetPolicyInfo(app, &info), 0);
    EXPECT_EQ(info, 0);
    EXPECT_TRUE(Says("result : 0, pInfo : 0 "));
}

TEST_F(CDataSenderTest, NineRecordsDoNotWakeTheThreadTheTenthDoes) {
    StartAndSleep();
    Queue(9);
    EXPECT_FALSE(Wakes(kShortWhile));
    EXPECT_EQ(m_Sender->GetQueueSize(), 9);
    Queue(1);
    EXPECT_TRUE(Wakes());
    ASSERT_TRUE(m_Bus.WaitForCalls("SendData", 1));
    EXPECT_EQ(SentRecords().size(), 10U);
}

TEST_F(CDataSenderTest, FirstPlayTimeBehindAStopWakesTheThreadAndNoOther) {
    StartAndSleep();
    Queue(1, TY_EVENT_STOP);
    EXPECT_FALSE(Wakes(kShortWhile));
    Queue(1, TY_EVENT_PLAYING_TIME);
    EXPECT_TRUE(Wakes());
    ASSERT_TRUE(m_Bus.WaitForCalls("SendData", 1));
    EXPECT_THAT(SentEvents(), ElementsAre(TY_EVENT_STOP, TY_EVENT_PLAYING_TIME));
    ASSERT_TRUE(Sleeps());
    m_Platform.ClearLog();
    Queue(1, TY_EVENT_PLAYING_TIME);
    EXPECT_FALSE(Wakes(kShortWhile));
}

TEST_F(CDataSenderTest, HeartbeatWithoutAStopWaitsForTwentySeconds) {
    StartAndSleep();
    Queue(1, TY_EVENT_PLAYING_TIME);
    m_Clock.Advance(std::chrono::milliseconds(19999));
    EXPECT_EQ(m_Bus.Calls("SendData").size(), 0U);
    EXPECT_TRUE(NotLogged("CTYDataSender thread wake up!!"));
    m_Clock.Advance(std::chrono::milliseconds(1));
    ASSERT_TRUE(m_Bus.WaitForCalls("SendData", 1));
    EXPECT_TRUE(Says("CTYDataSender Wake up by timeout ... "));
    EXPECT_LE(1U, m_Platform.CountLog(LOGSVC_DEBUG, kTagUtil, "CTYDataSender thread sleep...."));
}

TEST_F(CDataSenderTest, TerminationWakesTheThreadAndLogsItsSteps) {
    StartAndSleep();
    Queue(9);
    m_Sender->RequestTerminate();
    EXPECT_EQ(SentRecords().size(), 9U);
    for (const char* text :
         {"Sender thread start done", "Sender terminate", "Sender thread joinable",
          "Sender thread finished", "Sender join terminate"}) {
        EXPECT_TRUE(Logged(LOGSVC_INFO, kTagUtil, text));
    }
    EXPECT_TRUE(Says("CTYDataSender m_bRequestTerminate..."));
    EXPECT_TRUE(Says("WAKE UP [0]"));
}

// A call holds the thread for as long as the waker goes on.
TEST_F(CDataSenderTest, WakerTriesTenTimesHalfASecondApart) {
    std::promise<void> answer;
    m_Bus.onCall = [&](const CFakeBus::Call& /*call*/) { answer.get_future().wait(); };
    Queue(1);
    m_Sender->Start();
    std::thread terminating([this] { m_Sender->RequestTerminate(); });
    for (int pass = 0; pass < 10; ++pass) {
        EXPECT_TRUE(m_Platform.WaitForLog("WAKE UP [" + std::to_string(pass) + "]"));
        EXPECT_TRUE(m_Clock.AwaitWaiter(std::chrono::milliseconds(500)));
        m_Clock.Advance(std::chrono::milliseconds(500));
    }
    answer.set_value();
    terminating.join();
    EXPECT_TRUE(Says("WAKE UP [9]"));
    EXPECT_TRUE(NotLogged("WAKE UP [10]"));
}

TEST_F(CDataSenderTest, DestructionSendsWhatIsQueued) {
    StartAndSleep();
    Queue(5);
    m_Sender.reset();
    EXPECT_EQ(SentRecords().size(), 5U);
}

}  // namespace
