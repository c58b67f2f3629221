// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "SenderFixture.h"
#include "TYBatch.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <numeric>

using testing::ElementsAre;

namespace {

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
    EXPECT_TRUE(Says("Send Queue Size : 80 "));
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
    EXPECT_TRUE(Says("result : 0"));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "SendData failed, data clear"));
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
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "queue is empty!"));
    EXPECT_TRUE(Says("result : 1"));
}

}  // namespace
