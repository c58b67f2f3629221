// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYBatch.h"

using testing::ElementsAre;

namespace {

using CDataSenderTest = CSenderTest;

TEST_F(CDataSenderTest, CreationIsLoggedAndConnects) {
    EXPECT_TRUE(UtilInfo("Create >>"));
    EXPECT_EQ(m_Bus.Count("OpenPrivate"), 1U);
    m_Sender.reset();
    EXPECT_TRUE(UtilDebug("Destroy >>"));
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
        EXPECT_TRUE(UtilDebug(text));
    }
}

TEST_F(CDataSenderTest, PolicyRequestPassesThrough) {
    std::string app = "org.example.app";
    int info = -1;
    m_Bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, 7));
    EXPECT_EQ(m_Sender->GetPolicyInfo(app, &info), 1);
    EXPECT_EQ(info, 7);
    EXPECT_TRUE(UtilDebug("result : 1, pInfo : 7 "));
    m_Bus.SetReply("GetPolicyInfo", {{}, "no"});
    EXPECT_EQ(m_Sender->GetPolicyInfo(app, &info), 0);
    EXPECT_EQ(info, 0);
    EXPECT_TRUE(UtilDebug("result : 0, pInfo : 0 "));
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
    EXPECT_TRUE(UtilDebug("WAKE UP [9]"));
    EXPECT_TRUE(NotLogged("WAKE UP [10]"));
}

/// The test sends the batches itself.
class CBatchTest : public CSenderTest {
  protected:
    using Counts = std::vector<std::size_t>;

    void QueueUrl(int records, const std::string& url) { Queue(records, TY_EVENT_RESUME, url); }

    /// Fails the call of that number, counted from 1, and no other.
    void FailCall(int number) {
        m_Bus.onCall = [this, number, call = 0](const CFakeBus::Call&) mutable {
            m_Bus.SetReply("SendData", CFakeBus::Status(1, ++call == number ? 0 : 1));
        };
    }

    /// @return how many records each call carried
    Counts RecordsOfCalls() {
        Counts counts;
        for (const CFakeBus::Call& call : m_Bus.Calls("SendData")) {
            counts.push_back((call.arguments.size() / 3 - 1) / 2);
        }
        return counts;
    }

    /// @return the number of each record that was sent, in order
    std::vector<int> SentNumbers() {
        std::vector<int> numbers;
        for (const TYMediaData& record : SentRecords()) {
            numbers.push_back(record.param1);
        }
        return numbers;
    }

    static std::vector<int> Numbers(int from, int to) {
        std::vector<int> numbers(static_cast<std::size_t>(to - from));
        std::iota(numbers.begin(), numbers.end(), from);
        return numbers;
    }
};

TEST_F(CBatchTest, IsEverythingQueuedInCallsOfThirtySixRecords) {
    Queue(36);
    EXPECT_EQ(m_Sender->SendData(), 1);
    EXPECT_THAT(RecordsOfCalls(), ElementsAre(36));
    Queue(80);
    EXPECT_EQ(m_Sender->SendData(), 1);
    EXPECT_THAT(RecordsOfCalls(), ElementsAre(36, 36, 36, 8));
    EXPECT_EQ(m_Bus.Calls("SendData")[1].signature.size(), 255U);
    EXPECT_EQ(SentNumbers(), Numbers(0, 116));
    EXPECT_EQ(m_Sender->GetQueueSize(), 0);
    EXPECT_TRUE(UtilDebug("Send Queue Size : 80 "));
}

TEST_F(CBatchTest, IsSplitWhereACallWouldBeTooLongForTheBus) {
    QueueUrl(3, std::string(3 << 20, 'u'));
    Queue(2);
    EXPECT_EQ(m_Sender->SendData(), 1);
    EXPECT_THAT(RecordsOfCalls(), ElementsAre(2, 3));
    EXPECT_EQ(SentNumbers(), Numbers(0, 5));
}

TEST_F(CBatchTest, SendsTheLongestUrlInACallOfItsOwn) {
    Queue(1);
    QueueUrl(1, std::string(CTYBatch::kMaxUrlBytes, 'u'));
    Queue(1);
    EXPECT_EQ(m_Sender->SendData(), 1);
    EXPECT_THAT(RecordsOfCalls(), ElementsAre(1, 1, 1));
    EXPECT_EQ(SentUrls()[1].size(), CTYBatch::kMaxUrlBytes);
}

TEST_F(CBatchTest, LeavesRecordsThatCameAfterItCounted) {
    m_Bus.onCall = [this](const CFakeBus::Call& /*call*/) { Queue(1); };
    Queue(72);
    EXPECT_EQ(m_Sender->SendData(), 1);
    EXPECT_THAT(RecordsOfCalls(), ElementsAre(36, 36));
    EXPECT_EQ(m_Sender->GetQueueSize(), 2);
}

// The third call's records are sent once, and refused.
TEST_F(CBatchTest, DropsTheRestWhenItsThirdCallOfFiveFailsAndTheNextIsNormal) {
    FailCall(3);
    Queue(180);
    EXPECT_EQ(m_Sender->SendData(), 0);
    EXPECT_THAT(RecordsOfCalls(), ElementsAre(36, 36, 36));
    EXPECT_EQ(m_Sender->GetQueueSize(), 0);
    EXPECT_TRUE(UtilDebug("result : 0"));
    EXPECT_TRUE(UtilError("SendData failed, data clear"));
    Queue(40);
    EXPECT_EQ(m_Sender->SendData(), 1);
    EXPECT_THAT(RecordsOfCalls(), ElementsAre(36, 36, 36, 36, 4));
    std::vector<int> expected = Numbers(0, 108);
    const std::vector<int> next = Numbers(180, 220);
    expected.insert(expected.end(), next.begin(), next.end());
    EXPECT_EQ(SentNumbers(), expected);
}

// The sender's queue is all that grows while a service hangs.
TEST_F(CBatchTest, LeavesOneReplyTimeoutsWorthQueuedUnderAHungService) {
    constexpr int kPerSecond = 50;
    m_Bus.SetReply("SendData", CFakeBus::Reply::Never());
    m_Bus.onWait = [this](std::chrono::milliseconds time) {
        Queue(kPerSecond * static_cast<int>(time.count()) / 1000);
        m_Clock.Advance(time);
    };
    const auto end = m_Clock.SteadyNow() + std::chrono::minutes(10);
    int most = 0;
    Queue(10);
    while (m_Clock.SteadyNow() < end) {
        m_Sender->SendData();
        most = std::max(most, m_Sender->GetQueueSize());
    }
    EXPECT_EQ(most, kPerSecond * 3);
    EXPECT_EQ(m_Bus.Calls("SendData").size(), 200U);
}

// As when the connection check gives up while a batch goes out.
TEST_F(CBatchTest, EndsWhereAnotherThreadHasEmptiedTheQueue) {
    m_Bus.onCall = [this](const CFakeBus::Call& /*call*/) { m_Sender->ClearCollectedData(); };
    Queue(100);
    EXPECT_EQ(m_Sender->SendData(), 1);
    EXPECT_THAT(RecordsOfCalls(), ElementsAre(36, 1));
    EXPECT_TRUE(UtilError("queue is empty!"));
    EXPECT_TRUE(UtilDebug("result : 1"));
}

}  // namespace
