// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <ostream>
#include <thread>

using namespace std::chrono_literals;
using testing::Values;

namespace {

/// Holds whoever passes until it is opened, and tells that somebody came.
class CBarrier {
  public:
    /// Lets a test that fails go on.
    ~CBarrier() { Open(); }

    /// Holds the first one that comes; all others pass.
    void Pass() {
        if (!m_bReached.exchange(true)) {
            m_Reached.set_value();
            m_Opened.get_future().wait_for(60s);
        }
    }
    bool AwaitSomebody() { return m_ReachedFuture.wait_for(60s) == std::future_status::ready; }
    void Open() {
        if (!m_bOpen.exchange(true)) {
            m_Opened.set_value();
        }
    }

  private:
    std::atomic<bool> m_bReached{false};
    std::atomic<bool> m_bOpen{false};
    std::promise<void> m_Reached;
    std::promise<void> m_Opened;
    std::future<void> m_ReachedFuture = m_Reached.get_future();
};

/// Deletes a collector while something of it is held at a chosen place: a log line by its text, a
/// call to the service as in "call Kick", or the look for the service, "look".
class CCollectorDeletionTest : public CCollectorTest {
  protected:
    CCollectorDeletionTest() {
        m_Platform.onLog = [this](const CPlatformDouble::LogLine& line) { Reach(line.text); };
        m_Bus.onLook = [this] { Reach("look"); };
        m_Bus.onCall = [this](const CFakeBus::Call& call) {
            Reach("call " + call.Function());
            if (m_bSilent) {
                m_Clock.Advance(std::chrono::milliseconds(call.timeoutMs));
            }
        };
    }
    ~CCollectorDeletionTest() override {
        m_Barrier.Open();
        m_pCollector.reset();
    }

    /// Holds the first one that comes there.
    void HoldAt(const std::string& place) {
        const std::lock_guard lock(m_Mutex);
        m_strPlace = place;
    }

    /// From now on each call takes all of its time, and is in vain.
    void FallSilent() {
        m_Bus.SetReply("SendData", {{}, "no answer"});
        m_bSilent = true;
    }

    /// Makes the collector without waiting for it.
    void MakeCollector() {
        m_pCollector =
            std::make_unique<CTYDataCollector>("org.example.app", TY_PLAYER_NATIVE, m_Bus, m_Clock);
    }

    /// Runs something of the platform's beside the test.
    void Beside(std::function<void()> action) {
        m_Beside = std::async(std::launch::async, std::move(action));
    }

    /// Deletes the collector while somebody is held, who must be out of it when it has gone.
    void DeleteWhileHeld() {
        ASSERT_TRUE(m_Barrier.AwaitSomebody());
        auto deletion = std::async(std::launch::async, [this] { m_pCollector.reset(); });
        EXPECT_TRUE(m_Platform.WaitForLog("CTYDataCollector Destroy >>"));
        EXPECT_EQ(deletion.wait_for(30ms), std::future_status::timeout)
            << "the collector has gone while it is in use";
        m_Barrier.Open();
        ASSERT_EQ(deletion.wait_for(60s), std::future_status::ready);
        ExpectNothingIsLeft();
    }

    void ExpectNothingIsLeft() {
        EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
        EXPECT_EQ(m_Platform.NetworkMonitors(), 0U);
        EXPECT_EQ(m_Bus.Count("Close"), 1U);
        EXPECT_EQ(m_Clock.Waiters(), 0U);
    }

    CBarrier m_Barrier;
    std::future<void> m_Beside;

  private:
    void Reach(const std::string& place) {
        {
            const std::lock_guard lock(m_Mutex);
            if (place != m_strPlace) {
                return;
            }
        }
        m_Barrier.Pass();
    }

    std::mutex m_Mutex;
    std::string m_strPlace;
    std::atomic<bool> m_bSilent{false};
};

TEST_F(CCollectorDeletionTest, WhileTheConnectionCheckLooksForTheService) {
    HoldAt("look");
    MakeCollector();
    DeleteWhileHeld();
}

TEST_F(CCollectorDeletionTest, WhileTheConnectionCheckKicksTheService) {
    m_Bus.SetOwner(false);
    HoldAt("call Kick");
    MakeCollector();
    DeleteWhileHeld();
}

TEST_F(CCollectorDeletionTest, WhileTheConnectionCheckSleepsEndsTheSleep) {
    CollectorWithoutService();
    m_pCollector.reset();
    ExpectNothingIsLeft();
    EXPECT_EQ(m_Bus.Calls("Kick").size(), 2U);
}

// The service is there when the check looks, and the collector goes before the check hears of it.
TEST_F(CCollectorDeletionTest, InTheMomentInWhichTheServiceAppears) {
    CollectorWithoutService();
    HoldAt("look");
    m_Bus.SetOwner(true);
    m_Clock.Advance(1s);
    DeleteWhileHeld();
    EXPECT_EQ(m_Platform.CountLog("service is connected!") +
                  m_Platform.CountLog("Can't connect to service. Stop logging"),
              1U);
}

/// Each line that the connection check logs from the moment in which the service is there.
class CHandlerMomentTest : public CCollectorDeletionTest,
                           public testing::WithParamInterface<const char*> {};

TEST_P(CHandlerMomentTest, WhileTheConnectionHandlerRuns) {
    HoldAt(GetParam());
    MakeCollector();
    DeleteWhileHeld();
}

INSTANTIATE_TEST_SUITE_P(Lines, CHandlerMomentTest,
                         Values("IsConnected returns 1", "service is connected!",
                                "appID : org.example.app", "Get policy of org.example.app", "send",
                                "result : 1, pInfo : 1 ", "Sender thread start done"));

TEST_F(CCollectorDeletionTest, WhileTheConnectionHandlerWaitsForThePolicy) {
    HoldAt("call GetPolicyInfo");
    MakeCollector();
    DeleteWhileHeld();
}

TEST_F(CCollectorDeletionTest, WhileTheConnectionHandlerEndsCollection) {
    m_Platform.keyValue = 0;
    HoldAt("Analyzer thread joinable");
    MakeCollector();
    DeleteWhileHeld();
}

/// Each line that the platform's thread logs when the key changes, with the key's value.
struct KeyMoment {
    int value;
    const char* pLine;
};

void PrintTo(const KeyMoment& moment, std::ostream* pOut) {
    *pOut << moment.value << ", " << moment.pLine;
}

class CKeyMomentTest : public CCollectorDeletionTest,
                       public testing::WithParamInterface<KeyMoment> {};

TEST_P(CKeyMomentTest, WhileTheKeyChanges) {
    StartPlayback();
    HoldAt(GetParam().pLine);
    Beside([this] { m_Platform.ChangeKey(GetParam().value); });
    DeleteWhileHeld();
}

INSTANTIATE_TEST_SUITE_P(
    Lines, CKeyMomentTest,
    Values(KeyMoment{0, "m_isDataCollectOn : [0]"}, KeyMoment{0, "Event Analyzer terminate"},
           KeyMoment{0, "Analyzer thread joinable"}, KeyMoment{0, "Sender terminate"},
           KeyMoment{0, "Sender thread joinable"}, KeyMoment{0, "Sender join terminate"},
           KeyMoment{1, "m_isDataCollectOn : [1]"}, KeyMoment{1, "appID : org.example.app"},
           KeyMoment{1, "result : 1, pInfo : 1 "}, KeyMoment{1, "wrong!! Thread already start"}));

TEST_F(CCollectorDeletionTest, WhileTheKeyThatGoesOnAgainAsksForThePolicy) {
    Collector();
    m_Platform.ChangeKey(0);
    HoldAt("call GetPolicyInfo");
    Beside([this] { m_Platform.ChangeKey(1); });
    DeleteWhileHeld();
}

class CNetworkMomentTest : public CCollectorDeletionTest,
                           public testing::WithParamInterface<const char*> {};

TEST_P(CNetworkMomentTest, WhileTheNetworkChanges) {
    Collector();
    HoldAt(GetParam());
    Beside([this] { m_Platform.FireNetwork(0, "GATEWAY"); });
    DeleteWhileHeld();
}

INSTANTIATE_TEST_SUITE_P(Lines, CNetworkMomentTest,
                         Values("[GATEWAY] State callback Result : [0]",
                                "isConnect : 1, m_NetworkType : 1",
                                "m_pConnectedCallback is NULL!!!"));

/// A collector with records that wait.
class CQueuedDeletionTest : public CCollectorDeletionTest {
  protected:
    /// Reports a START and so many others, when nobody can miss being woken.
    void Queue(int records) {
        Collector();
        ASSERT_TRUE(m_Clock.AwaitWaiter(20s, 30s, 2));
        StartPlayback();
        for (int i = 0; i < records; ++i) {
            Event(99, i);
        }
    }

    /// Deletes the collector.
    /// @return the time that it took
    std::chrono::nanoseconds Delete() {
        const auto begin = m_Clock.SteadyNow();
        m_pCollector.reset();
        return m_Clock.SteadyNow() - begin;
    }
};

class CWorkerMomentTest : public CQueuedDeletionTest,
                          public testing::WithParamInterface<const char*> {};

TEST_P(CWorkerMomentTest, WhileItsOwnThreadsWork) {
    Collector();
    HoldAt(GetParam());
    Queue(20);
    DeleteWhileHeld();
    EXPECT_EQ(SentRecords().size(), 21U);
}

INSTANTIATE_TEST_SUITE_P(Places, CWorkerMomentTest,
                         Values("event 1.", "CTYDataSender thread wake up!!",
                                "CTYDataSender SendData start ", "send", "call SendData"));

TEST_F(CQueuedDeletionTest, TakesOneReplyTimeoutOfASilentServiceWithAThousandWaiting) {
    Collector();
    HoldAt("call SendData");
    Queue(1000);
    ASSERT_TRUE(m_Barrier.AwaitSomebody());
    FallSilent();
    auto deletion = std::async(std::launch::async, [this] { return Delete(); });
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread joinable"));
    m_Barrier.Open();
    EXPECT_EQ(deletion.get(), 3s);
    EXPECT_EQ(m_Bus.Calls("SendData").size(), 1U);
    ExpectNothingIsLeft();
}

// The sender is held before it counts, so that all thousand are one batch.
TEST_F(CQueuedDeletionTest, KeyThatGoesOffWaitsOneReplyTimeoutOfAHungServiceWithAThousandWaiting) {
    Collector();
    HoldAt("CTYDataSender SendData start ");
    Queue(1000);
    ASSERT_TRUE(m_Barrier.AwaitSomebody());
    ASSERT_TRUE(m_Platform.WaitForLog("param1 999."));
    FallSilent();
    const auto begin = m_Clock.SteadyNow();
    Beside([this] { m_Platform.ChangeKey(0); });
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread joinable"));
    m_Barrier.Open();
    m_Beside.get();
    EXPECT_EQ(m_Clock.SteadyNow() - begin, 3s);
    EXPECT_EQ(m_Bus.Calls("SendData").size(), 1U);
}

TEST_F(CQueuedDeletionTest, LeavesASilentServiceTheWholeReplyTimeout) {
    Queue(5);
    FallSilent();
    EXPECT_EQ(Delete(), 3s);
    EXPECT_EQ(m_Bus.Calls("SendData").size(), 1U);
}

TEST_F(CQueuedDeletionTest, DeliversEverythingToAServiceThatAnswers) {
    Queue(400);
    EXPECT_EQ(Delete(), 0s);
    EXPECT_EQ(SentRecords().size(), 401U);
}

}  // namespace
