// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

namespace {

/// What another thread does, and the platform's call in which it blocks.
struct Stuck {
    const char* call;
    std::function<void(CPlatformDouble&, ITYBus&, ITYClock&)> act;
};

/// Makes every call of the interface while another thread blocks in the platform.
class CStuckPlatformTest : public CTableTest<CCollectorTest, Stuck> {
  protected:
    ~CStuckPlatformTest() override {
        m_Barrier.Open();
        m_pCollector.reset();
        m_Platform.onCall = nullptr;
    }

    /// Runs on the player's thread.
    void MakeAllCalls() {
        m_Player = std::this_thread::get_id();
        ITYDataCollector& collector = *m_pCollector;
        int major = 0;
        int minor = 0;
        collector.GetVersion(&major, &minor);
        collector.SetServiceVersion("2");
        collector.SetDrmType(collector.GetDrmType());
        collector.SetContentType(collector.GetContentType());
        collector.SetDuration(1);
        collector.SendMediaError(static_cast<TY_ERROR_TYPE>(210));
        for (const int event :
             {TY_EVENT_START, TY_EVENT_RENDER_START, TY_EVENT_PLAYBACK_TIME,
              TY_EVENT_BUFFERING_START, TY_EVENT_BUFFERING_END, TY_EVENT_PAUSE, TY_EVENT_RESUME,
              TY_EVENT_SEEK, TY_EVENT_SEEK_COMPLETE, TY_EVENT_PLAYBACK_TIME,
              static_cast<TY_EVENT_TYPE>(kFreeEvent), TY_EVENT_START}) {
            Event(event, 1, 1);
        }
        EXPECT_TRUE(collector.Execute(100, 1, "text"));
        Event(TY_EVENT_STOP);
        SetContent("next.mp4");
    }

    CBarrier m_Barrier;
    std::atomic<std::thread::id> m_Player;
    std::set<std::string> m_CallsOfPlayer;
};

TEST_P(CStuckPlatformTest, BlocksNoCallOfAPlayerWhichMakesOnlyTheWifiReading) {
    m_Platform.connectionType = CONNECTION_TYPE_WIFI;
    SetContent();
    m_Platform.onCall = [&](const std::string& name) {
        if (std::this_thread::get_id() == m_Player) {
            m_CallsOfPlayer.insert(name);
        } else if (name == Case().call) {
            m_Barrier.Pass();
        }
    };
    std::thread elsewhere([this] { Case().act(m_Platform, m_Bus, m_Clock); });
    EXPECT_TRUE(m_Barrier.AwaitThread());
    auto played = std::async(std::launch::async, [this] { MakeAllCalls(); });
    EXPECT_EQ(played.wait_for(kPatience / 2), std::future_status::ready);
    m_Barrier.Open();
    elsewhere.join();
    EXPECT_THAT(m_CallsOfPlayer,
                testing::ElementsAre("wifi_manager_ap_get_rssi", "wifi_manager_get_connected_ap",
                                     "wifi_manager_initialize"));
}

const Named<Stuck> kStuck[] = {
    {"Settings", {"regdb_get_bool", [](auto& platform, auto&, auto&) { platform.ChangeKey(1); }}},
    {"Network",
     {"connection_get_type",
      [](auto& platform, auto&, auto&) { platform.FireNetwork(0, "GATEWAY"); }}},
    {"Construction",
     {"connection_create",
      [](auto&, auto& bus, auto& clock) {
          const CTYDataCollector another("org.example.other", TY_PLAYER_NATIVE, bus, clock);
      }}},
};
INSTANTIATE_TEST_SUITE_P(Elsewhere, CStuckPlatformTest, testing::ValuesIn(kStuck), kByName);

}  // namespace
