// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

using testing::ElementsAre;

namespace {

/// A platform whose calls block, except the reading of the Wi-Fi signal.
class CBlockedPlatformTest : public CCollectorTest {
  protected:
    ~CBlockedPlatformTest() override {
        Release();
        m_pCollector.reset();
        m_Platform.onCall = nullptr;
    }

    void BlockPlatform() {
        m_Platform.onCall = [this](const char* name) {
            std::unique_lock lock(m_Mutex);
            if (std::this_thread::get_id() == m_Player) {
                m_CallsOfPlayer.insert(name);
            }
            if (!std::string_view(name).starts_with("wifi_manager_")) {
                m_Blocked.insert(name);
                m_Changed.notify_all();
                m_Changed.wait(lock, [this] { return m_bReleased; });
            }
        };
    }

    bool WaitUntilBlockedIn(const std::string& name) {
        std::unique_lock lock(m_Mutex);
        return m_Changed.wait_for(lock, kPatience, [&] { return m_Blocked.contains(name); });
    }

    void Release() {
        const std::lock_guard lock(m_Mutex);
        m_bReleased = true;
        m_Changed.notify_all();
    }

    /// Makes every call of the interface on a thread of the player's.
    /// @return whether all of them returned while the platform was blocked
    bool PlayerReturns() {
        std::future<void> played = std::async(std::launch::async, [this] { MakeAllCalls(); });
        const bool back = played.wait_for(kPatience) == std::future_status::ready;
        Release();
        played.get();
        return back;
    }

    std::set<std::string> m_CallsOfPlayer;

  private:
    void MakeAllCalls() {
        {
            const std::lock_guard lock(m_Mutex);
            m_Player = std::this_thread::get_id();
        }
        ITYDataCollector& collector = *m_pCollector;
        int major = 0;
        int minor = 0;
        collector.GetVersion(&major, &minor);
        collector.SetServiceVersion("2");
        collector.SetDrmType(collector.GetDrmType());
        collector.SetContentType(collector.GetContentType());
        collector.SetDuration(1);
        collector.SendMediaError(static_cast<TY_ERROR_TYPE>(210));
        for (const TY_EVENT_TYPE event :
             {TY_EVENT_START, TY_EVENT_RENDER_START, TY_EVENT_PLAYBACK_TIME,
              TY_EVENT_BUFFERING_START, TY_EVENT_BUFFERING_END, TY_EVENT_PAUSE, TY_EVENT_RESUME,
              TY_EVENT_SEEK, TY_EVENT_SEEK_COMPLETE, TY_EVENT_PLAYBACK_TIME,
              static_cast<TY_EVENT_TYPE>(99), TY_EVENT_START}) {
            collector.SendMediaEvent(event, 1, 1);
        }
        EXPECT_TRUE(collector.Execute(100, 1, "text"));
        collector.SendMediaEvent(TY_EVENT_STOP, 0, 0);
        std::string url = "next.mp4";
        CTYContentInfo info(&url, 0);
        collector.SetContentInfo(&info);
    }

    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::thread::id m_Player;
    std::set<std::string> m_Blocked;
    bool m_bReleased = false;
};

/// What another thread does, and the call in which it blocks.
struct Stuck {
    const char* name;
    const char* call;
    std::function<void(CPlatformDouble&, ITYBus&, ITYClock&)> act;
};

void PrintTo(const Stuck& stuck, std::ostream* pStream) {
    *pStream << stuck.name;
}

const Stuck kStuck[] = {
    {"Settings", "regdb_get_bool",
     [](CPlatformDouble& platform, ITYBus&, ITYClock&) { platform.ChangeKey(1); }},
    {"Network", "connection_get_type",
     [](CPlatformDouble& platform, ITYBus&, ITYClock&) { platform.FireNetwork(0, "GATEWAY"); }},
    {"Construction", "connection_create",
     [](CPlatformDouble&, ITYBus& bus, ITYClock& clock) {
         const CTYDataCollector another("org.example.other", TY_PLAYER_NATIVE, bus, clock);
     }},
};

class CStuckPlatformTest : public CBlockedPlatformTest,
                           public testing::WithParamInterface<Stuck> {};

TEST_P(CStuckPlatformTest, BlocksNoCallOfAPlayerWhichMakesOnlyTheWifiReading) {
    m_Platform.connectionType = CONNECTION_TYPE_WIFI;
    SetContent();
    BlockPlatform();
    std::thread elsewhere([this] { GetParam().act(m_Platform, m_Bus, m_Clock); });
    EXPECT_TRUE(WaitUntilBlockedIn(GetParam().call));
    EXPECT_TRUE(PlayerReturns());
    elsewhere.join();
    EXPECT_THAT(m_CallsOfPlayer,
                ElementsAre("wifi_manager_ap_get_rssi", "wifi_manager_get_connected_ap",
                            "wifi_manager_initialize"));
}

INSTANTIATE_TEST_SUITE_P(Elsewhere, CStuckPlatformTest, testing::ValuesIn(kStuck),
                         [](const auto& stuck) { return stuck.param.name; });

}  // namespace
