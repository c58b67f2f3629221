// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYDataSender.h"

#include <glib.h>
#include <gmock/gmock.h>

#include <future>
#include <thread>

using testing::ElementsAre;

namespace {

/// How long something that must not happen gets to happen. A slow machine makes such a test blind,
/// never red.
constexpr std::chrono::milliseconds kShortWhile{100};

class CDataSenderTest : public CSeamTest {
  protected:
    // What is still queued when a sender goes is never freed.
    ~CDataSenderTest() override {
        if (m_Sender != nullptr) {
            m_Sender->StopConnectionCheck();
            m_Sender->ClearCollectedData();
        }
    }

    void Queue(int records, int event = 7) {
        for (int i = 0; i < records; ++i) {
            m_Sender->InsertData(NewRecord(event, i));
        }
    }

    /// @return whether the sender's thread sleeps: from now on it hears every notification
    bool Sleeps() { return m_Clock.AwaitWaiter(std::chrono::seconds(20)); }

    /// @return whether the thread was notified within a time; the clock stands still meanwhile
    bool Wakes(std::chrono::milliseconds within = std::chrono::seconds(30)) {
        return m_Platform.WaitForLog("CTYDataSender thread wake up!!", 1, within);
    }

    std::unique_ptr<CTYDataSender> m_Sender = std::make_unique<CTYDataSender>(m_Bus, m_Clock);
};

TEST_F(CDataSenderTest, CreationIsLoggedAndConnects) {
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTagUtil, "Create >>"));
    EXPECT_EQ(m_Bus.Count("GetPrivate"), 1U);
    m_Sender.reset();
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTagUtil, "Destroy >>"));
    EXPECT_EQ(m_Bus.Count("Close"), 1U);
}

TEST_F(CDataSenderTest, NothingQueuedIsNothingSent) {
    EXPECT_EQ(m_Sender->SendData(), 0);
    EXPECT_EQ(m_Bus.Calls().size(), 0U);
    EXPECT_TRUE(NotLogged("CTYDataSender SendData start "));
}

TEST_F(CDataSenderTest, BatchHoldsRecordsAndUrlsInOrder) {
    m_Sender->InsertData(NewRecord(1, 10, 20, "a.mp4"));
    m_Sender->InsertData(NewRecord(6, 30, 40, "b.mp4"));
    EXPECT_EQ(m_Sender->SendData(), 1);
    EXPECT_THAT(SentEvents(), ElementsAre(1, 6));
    EXPECT_THAT(SentUrls(), ElementsAre("a.mp4", "b.mp4"));
    EXPECT_EQ(m_Sender->GetQueueSize(), 0);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTagUtil, "CTYDataSender SendData start "));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTagUtil, "Send Queue Size : 2 "));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTagUtil, "result : 1"));
}

TEST_F(CDataSenderTest, FailedBatchIsLostAndNotSentAgain) {
    m_Bus.SetReply("SendData", CFakeBus::Status(1, 0));
    Queue(3);
    EXPECT_EQ(m_Sender->SendData(), 0);
    EXPECT_EQ(m_Sender->GetQueueSize(), 0);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTagUtil, "result : 0"));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "SendData failed, data clear"));
    m_Sender->SendData();
    EXPECT_EQ(m_Bus.Calls("SendData").size(), 1U);
}

TEST_F(CDataSenderTest, ClearDropsEverythingQueued) {
    Queue(5);
    m_Sender->ClearCollectedData();
    EXPECT_EQ(m_Sender->GetQueueSize(), 0);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "drop collected data"));
}

TEST_F(CDataSenderTest, PolicyRequestPassesThrough) {
    m_Bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, 7));
    std::string app = "org.example.app";
    int info = -1;
    EXPECT_EQ(m_Sender->GetPolicyInfo(app, &info), 1);
    EXPECT_EQ(info, 7);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTagUtil, "result : 1, pInfo : 7 "));
    m_Bus.SetReply("GetPolicyInfo", {{}, "no"});
    EXPECT_EQ(m_Sender->GetPolicyInfo(app, &info), 0);
    EXPECT_EQ(info, 0);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTagUtil, "result : 0, pInfo : 0 "));
}

TEST_F(CDataSenderTest, NineRecordsDoNotWakeTheThreadTheTenthDoes) {
    m_Sender->Start();
    ASSERT_TRUE(Sleeps());
    Queue(9);
    EXPECT_FALSE(Wakes(kShortWhile));
    EXPECT_EQ(m_Sender->GetQueueSize(), 9);
    Queue(1);
    EXPECT_TRUE(Wakes());
    ASSERT_TRUE(m_Bus.WaitForCalls("SendData", 1));
    EXPECT_EQ(SentRecords().size(), 10U);
}

TEST_F(CDataSenderTest, StopWakesTheThreadWhenItsPlayTimeHasCome) {
    m_Sender->Start();
    ASSERT_TRUE(Sleeps());
    Queue(1, 2);
    EXPECT_FALSE(Wakes(kShortWhile));
    Queue(1, 20);
    EXPECT_TRUE(Wakes());
    ASSERT_TRUE(m_Bus.WaitForCalls("SendData", 1));
    EXPECT_THAT(SentEvents(), ElementsAre(2, 20));
}

TEST_F(CDataSenderTest, HeartbeatWithoutAStopDoesNotWakeTheThread) {
    m_Sender->Start();
    ASSERT_TRUE(Sleeps());
    Queue(1, 20);
    m_Clock.Advance(std::chrono::milliseconds(19999));
    EXPECT_EQ(m_Bus.Calls("SendData").size(), 0U);
    EXPECT_TRUE(NotLogged("CTYDataSender thread wake up!!"));
    m_Clock.Advance(std::chrono::milliseconds(1));
    ASSERT_TRUE(m_Bus.WaitForCalls("SendData", 1));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTagUtil, "CTYDataSender Wake up by timeout ... "));
    EXPECT_LE(1U, m_Platform.CountLog(LOGSVC_DEBUG, kTagUtil, "CTYDataSender thread sleep...."));
}

// The request comes while the first call is under way.
TEST_F(CDataSenderTest, TerminationSendsEverythingQueued) {
    Queue(80);
    std::thread terminating;
    m_Bus.onCall = [&](const CFakeBus::Call& /*call*/) {
        if (!terminating.joinable()) {
            Queue(20);
            terminating = std::thread([this] { m_Sender->RequestTerminate(); });
            m_Platform.WaitForLog("Sender thread joinable", 1, std::chrono::seconds(30));
        }
    };
    m_Sender->Start();
    ASSERT_TRUE(m_Platform.WaitForLog("Sender join terminate", 1, std::chrono::seconds(30)));
    terminating.join();
    EXPECT_EQ(m_Bus.Calls("SendData").size(), 4U);
    EXPECT_EQ(SentRecords().size(), 100U);
    EXPECT_EQ(SentRecords().back().param1, 19);
}

TEST_F(CDataSenderTest, TerminationWakesTheThreadAndSaysWhatItDoes) {
    m_Sender->Start();
    ASSERT_TRUE(Sleeps());
    Queue(9);
    m_Sender->RequestTerminate();
    EXPECT_EQ(SentRecords().size(), 9U);
    for (const char* text :
         {"Sender thread start done", "Sender terminate", "Sender thread joinable",
          "Sender thread finished", "Sender join terminate"}) {
        EXPECT_TRUE(Logged(LOGSVC_INFO, kTagUtil, text));
    }
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTagUtil, "CTYDataSender m_bRequestTerminate..."));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTagUtil, "WAKE UP [0]"));
}

// The thread is held in a call that is not answered for as long as the waker goes on.
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
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTagUtil, "WAKE UP [9]"));
    EXPECT_TRUE(NotLogged("WAKE UP [10]"));
}

TEST_F(CDataSenderTest, DestructionSendsWhatIsQueued) {
    m_Sender->Start();
    ASSERT_TRUE(Sleeps());
    Queue(5);
    m_Sender.reset();
    EXPECT_EQ(SentRecords().size(), 5U);
}

TEST_F(CDataSenderTest, SecondPlayTimeBehindAStopDoesNotWakeTheThread) {
    m_Sender->Start();
    ASSERT_TRUE(Sleeps());
    Queue(1, 2);
    Queue(1, 20);
    ASSERT_TRUE(m_Bus.WaitForCalls("SendData", 1));
    ASSERT_TRUE(Sleeps());
    m_Platform.ClearLog();
    Queue(1, 20);
    EXPECT_FALSE(Wakes(kShortWhile));
}

}  // namespace
