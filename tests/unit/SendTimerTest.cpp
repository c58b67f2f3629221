// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

#include <glib.h>

namespace {

class CSendTimerTest : public CSenderTest {
  protected:
    /// @return the timer's source, as the log tells its identifier
    GSource* TimerSource(int period) {
        const std::string start = "CTYDataSender Time : " + std::to_string(period) + ",  Timer : ";
        for (const auto& line : m_Platform.Log()) {
            if (line.text.rfind(start, 0) == 0) {
                const auto id = static_cast<guint>(std::stoul(line.text.substr(start.size())));
                return g_main_context_find_source_by_id(nullptr, id);
            }
        }
        return nullptr;
    }

    /// @return whether the timer fires a minute after some time between `before` and now
    testing::AssertionResult FiresAMinuteFrom(gint64 before) {
        GSource* pSource = TimerSource(60000);
        if (pSource == nullptr) {
            return testing::AssertionFailure() << "there is no timer";
        }
        const gint64 minute = g_source_get_ready_time(pSource) - 60 * G_USEC_PER_SEC;
        if (before <= minute && minute <= g_get_monotonic_time()) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "it fires " << minute - before << " us off";
    }

    /// @return how many sources the host's main loop has
    static guint Sources() {
        const guint probe = g_idle_add([](void*) { return G_SOURCE_REMOVE; }, nullptr);
        guint sources = 0;
        for (guint id = 1; id < probe; ++id) {
            sources += g_main_context_find_source_by_id(nullptr, id) != nullptr ? 1 : 0;
        }
        g_source_remove(probe);
        return sources;
    }
};

TEST_F(CSendTimerTest, StartRegistersATimerOfOneMinuteOnTheHostsMainLoop) {
    const gint64 before = g_get_monotonic_time();
    m_Sender->Start();
    EXPECT_TRUE(FiresAMinuteFrom(before));
}

TEST_F(CSendTimerTest, SecondTimerIsNotRegistered) {
    m_Sender->Start();
    GSource* pTimer = TimerSource(60000);
    const guint sources = Sources();
    m_Sender->Start();
    m_Sender->RegisterTimer(50000);
    EXPECT_EQ(Sources(), sources);
    EXPECT_NE(pTimer, nullptr);
    EXPECT_EQ(TimerSource(60000), pTimer);
    EXPECT_EQ(TimerSource(50000), nullptr);
}

TEST_F(CSendTimerTest, CallbackWakesTheThreadWhenRecordsWaitAndKeepsTheTimer) {
    StartAndSleep();
    Queue(1);
    while (!Wakes(std::chrono::milliseconds(1))) {
        EXPECT_EQ(CTYDataSender::DataSendTimerCallback(m_Sender.get()), 1);
    }
    ASSERT_TRUE(m_Bus.WaitForCalls("SendData", 1));
    EXPECT_LE(1U, m_Platform.CountLog(LOGSVC_DEBUG, kTagUtil, "start callback!!!"));
}

TEST_F(CSendTimerTest, CallbackLetsTheThreadSleepWhenNothingWaits) {
    StartAndSleep();
    EXPECT_EQ(CTYDataSender::DataSendTimerCallback(m_Sender.get()), 1);
    EXPECT_FALSE(Wakes(kShortWhile));
}

TEST_F(CSendTimerTest, MainLoopRunsTheCallbackAndDoesSoAgainAMinuteLater) {
    m_Sender->RegisterTimer(60000);
    g_source_set_ready_time(TimerSource(60000), 0);
    const gint64 before = g_get_monotonic_time();
    while (m_Platform.CountLog("start callback!!!") == 0) {
        g_main_context_iteration(nullptr, TRUE);
    }
    EXPECT_TRUE(FiresAMinuteFrom(before));
}

TEST_F(CSendTimerTest, UnregisteredTimerIsGoneAndSoIsADestroyedSendersTimer) {
    m_Sender->RegisterTimer(60000);
    m_Sender->UnRegisterTimer();
    EXPECT_EQ(TimerSource(60000), nullptr);
    m_Sender->UnRegisterTimer();
    m_Sender->RegisterTimer(60001);
    EXPECT_NE(TimerSource(60001), nullptr);
    m_Sender.reset();
    EXPECT_EQ(TimerSource(60001), nullptr);
}

TEST_F(CSendTimerTest, SenderMayGoWhileTheMainLoopRunsItsCallbacks) {
    std::atomic<bool> stop{false};
    std::thread mainLoop([&stop] {
        while (!stop) {
            g_main_context_iteration(nullptr, FALSE);
        }
    });
    for (int i = 0; i < 50; ++i) {
        auto sender = std::make_unique<CTYDataSender>(m_Bus, m_Clock);
        sender->RegisterTimer(1);
        const std::size_t before = m_Platform.CountLog("start callback!!!");
        EXPECT_TRUE(m_Platform.WaitForLog("start callback!!!", before + 1));
    }
    stop = true;
    mainLoop.join();
}

TEST_F(CSendTimerTest, SenderWaitsForTheCallbackThatIsUnderWay) {
    CBarrier barrier;
    m_Platform.onLog = [&](const CPlatformDouble::LogLine& line) {
        if (line.text == "start callback!!!") {
            barrier.Pass();
        }
    };
    m_Sender->RegisterTimer(1);
    // Other sources of the main loop may come first.
    const auto loop = std::async(std::launch::async, [this] {
        while (m_Platform.CountLog("start callback!!!") == 0) {
            g_main_context_iteration(nullptr, TRUE);
        }
    });
    EXPECT_TRUE(barrier.AwaitThread());
    auto deletion = std::async(std::launch::async, [this] { m_Sender.reset(); });
    EXPECT_TRUE(m_Platform.WaitForLog("Destroy >>"));
    EXPECT_EQ(deletion.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    barrier.Open();
    EXPECT_EQ(deletion.wait_for(std::chrono::seconds(30)), std::future_status::ready);
}

TEST_F(CSendTimerTest, TerminationLeavesTheTimer) {
    m_Sender->Start();
    m_Sender->RequestTerminate();
    EXPECT_NE(TimerSource(60000), nullptr);
}

}  // namespace
