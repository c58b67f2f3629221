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

    /// Expects that the timer fires a minute after some time between `before` and now.
    void ExpectFiresAMinuteFrom(gint64 before) {
        ASSERT_NE(TimerSource(60000), nullptr);
        const gint64 minute = g_source_get_ready_time(TimerSource(60000)) - 60 * G_USEC_PER_SEC;
        EXPECT_LE(before, minute);
        EXPECT_LE(minute, g_get_monotonic_time());
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

TEST_F(CSendTimerTest, StartRegistersATimerOfOneMinuteOnTheHostsMainLoopAndNoSecondOne) {
    const gint64 before = g_get_monotonic_time();
    m_Sender->Start();
    ExpectFiresAMinuteFrom(before);
    GSource* pTimer = TimerSource(60000);
    const guint sources = Sources();
    m_Sender->Start();
    m_Sender->RegisterTimer(50000);
    EXPECT_EQ(Sources(), sources);
    m_Sender->RequestTerminate();
    EXPECT_EQ(TimerSource(60000), pTimer) << "termination leaves it";
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
    ExpectFiresAMinuteFrom(before);
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

}  // namespace
