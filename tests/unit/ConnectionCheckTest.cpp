// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class CConnectionCheckTest : public CSenderTest {
  protected:
    // The check may still answer while it stops, and the answers are destroyed before the sender.
    ~CConnectionCheckTest() override {
        if (m_Sender != nullptr) {
            m_Sender->StopConnectionCheck();
        }
    }

    void StartCheck() {
        m_Sender->SetServiceConnectionCallback([this, pSender = m_Sender.get()](bool connected) {
            const std::lock_guard lock(m_Mutex);
            m_Answers.push_back(connected);
            m_nQueuedWhenAnswered = pSender->GetQueueSize();
        });
    }

    /// Starts a check for a service that is absent, and waits until it polls.
    void StartPolling() {
        m_Bus.SetOwner(false);
        StartCheck();
        ASSERT_TRUE(Polls());
    }

    bool Polls() { return m_Clock.AwaitWaiter(std::chrono::seconds(1)); }

    bool EndsConnected() {
        const bool connected = m_Platform.WaitForLog("service is connected!");
        m_Sender->StopConnectionCheck();
        return connected;
    }

    std::vector<bool> Answers() {
        const std::lock_guard lock(m_Mutex);
        return m_Answers;
    }

    int m_nQueuedWhenAnswered = -1;

  private:
    std::mutex m_Mutex;
    std::vector<bool> m_Answers;
};

TEST_F(CConnectionCheckTest, PresentServiceIsReportedOnceWithTrueAndHasThreeSecondsForEachReply) {
    StartCheck();
    ASSERT_TRUE(EndsConnected());
    EXPECT_TRUE(UtilInfo("service is connected!"));
    EXPECT_EQ(m_Bus.Calls("Kick").at(0).timeoutMs, 200);
    std::string app = "org.example.app";
    int policy = 0;
    for (int i = 0; i < 2; ++i) {
        m_Sender->GetPolicyInfo(app, &policy);
        EXPECT_EQ(m_Bus.Calls().back().timeoutMs, 3000);
        Queue(1);
        m_Sender->SendData();
        EXPECT_EQ(m_Bus.Calls().back().timeoutMs, 3000);
    }
    m_Sender.reset();
    EXPECT_THAT(Answers(), ElementsAre(true));
}

TEST_F(CConnectionCheckTest, FirstLooksThenKicksBeforeThePolling) {
    StartPolling();
    auto journal = m_Bus.Journal();
    std::erase_if(journal,
                  [](const auto& entry) { return entry != "Kick" && entry != "NameHasOwner"; });
    EXPECT_THAT(journal, ElementsAre("NameHasOwner", "Kick", "NameHasOwner", "Kick"));
    EXPECT_EQ(m_Platform.CountLog("KICK"), 2U);
}

TEST_F(CConnectionCheckTest, AbsentServiceIsLookedForEverySecondUntilItAppears) {
    StartPolling();
    for (std::size_t kicks = 2; kicks < 12; ++kicks) {
        ASSERT_TRUE(Polls());
        EXPECT_EQ(m_Bus.Calls("Kick").size(), kicks);
        m_Clock.Advance(std::chrono::milliseconds(999));
        EXPECT_EQ(m_Bus.Calls("Kick").size(), kicks);
        EXPECT_THAT(Answers(), IsEmpty());
        m_Bus.SetOwner(kicks == 11);
        m_Clock.Advance(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(EndsConnected());
    EXPECT_EQ(m_Bus.Count("NameHasOwner"), 12U);  // once before the polls
    EXPECT_EQ(m_Bus.Calls("Kick").size(), 11U);
    EXPECT_THAT(Answers(), ElementsAre(true));
}

TEST_F(CConnectionCheckTest, TwoHundredFirstRecordEndsTheWaitAndDropsThemAll) {
    Queue(200);
    StartPolling();
    EXPECT_TRUE(NotLogged("Max log count exceed."));
    Queue(1);
    m_Clock.Advance(std::chrono::seconds(1));
    ASSERT_TRUE(m_Platform.WaitForLog("drop collected data"));
    m_Sender->StopConnectionCheck();
    EXPECT_EQ(m_Bus.Calls("Kick").size(), 2U);
    EXPECT_TRUE(UtilError("Max log count exceed."));
    EXPECT_TRUE(UtilError("drop collected data"));
    EXPECT_TRUE(UtilError("stop connection checking and stop logging"));
    EXPECT_THAT(Answers(), ElementsAre(false));
    EXPECT_EQ(m_nQueuedWhenAnswered, 201);
    EXPECT_EQ(m_Sender->GetQueueSize(), 0);
}

TEST_F(CConnectionCheckTest, DestroyedSenderEndsTheWaitAtOnce) {
    StartPolling();
    m_Sender.reset();
    EXPECT_THAT(Answers(), ElementsAre(false));
    EXPECT_TRUE(UtilError("stop connection checking and stop logging"));
}

TEST_F(CConnectionCheckTest, ProxyWithoutAConnectionIsPolledToo) {
    m_Bus.connectError = "no bus";
    m_Sender = std::make_unique<CTYDataSender>(m_Bus, m_Clock);
    StartPolling();
    EXPECT_EQ(m_Bus.Calls().size(), 0U);
    EXPECT_EQ(m_Platform.CountLog("Connection is not ready. should re-create CDbusClient"), 2U);
}

TEST_F(CConnectionCheckTest, SecondCallbackReplacesTheFirst) {
    StartPolling();
    StartCheck();
    EXPECT_THAT(Answers(), ElementsAre(false));
    ASSERT_TRUE(Polls());
}

}  // namespace
