// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// libtallyra.so over the test platform, as in a player's own tests.

#include "PrivateBus.h"
#include "TestPlatformFixture.h"
#include "receiver/Receiver.h"

#include <tallyra/ITYDataCollector.h>

using testing::IsEmpty;
using testing::SizeIs;

namespace {

/// A real bus, service and library.
class CLibraryTest : public CTestPlatformTest {
  protected:
    CLibraryTest() {
        m_Bus.BecomeSystemBus();
        m_Service.OwnName();
    }
    // The library's callbacks go before the platform forgets them.
    ~CLibraryTest() override { m_pPlayer.reset(); }

    void MakePlayer() {
        m_pPlayer.reset(GetTYDataCollectorInstance("org.example.app", TY_PLAYER_NATIVE));
    }
    void Connect() {
        MakePlayer();
        ASSERT_TRUE(Logs("CTYDataSender thread sleep...."));
    }
    void Event(int event) { m_pPlayer->SendMediaEvent(static_cast<TY_EVENT_TYPE>(event), 0, 0); }
    void StartPlayback() {
        std::string url = "film.mp4";
        CTYContentInfo content(&url, 0);
        content.SetTitle("Film");
        m_pPlayer->SetContentInfo(&content);
        Event(TY_EVENT_START);
    }
    bool Collects() { return m_pPlayer->Execute(100, 0, ""); }
    static bool Logs(const char* pText) {
        return tallyra_testplatform_wait_for_log(pText, 0, kPatienceMs) >= 0;
    }
    /// Deletes the collector. @return what arrived
    std::vector<receiver::Record> Arrived() {
        m_pPlayer.reset();
        std::vector<receiver::Record> records;
        for (const auto& received : m_Service.Records()) {
            records.push_back(received.record);
        }
        return records;
    }

    CPrivateBus& m_Bus = TheBus();
    receiver::CReceiver m_Service{m_Bus.Address()};
    std::unique_ptr<ITYDataCollector> m_pPlayer;

  private:
    // libdbus reads its address once.
    static CPrivateBus& TheBus() {
        static CPrivateBus bus;
        return bus;
    }
};

TEST_F(CLibraryTest, SwitchingTheKeyOffStopsCollection) {
    Connect();
    StartPlayback();
    EXPECT_TRUE(Collects());
    tallyra_testplatform_set_key(kKey, 0);
    ASSERT_TRUE(Settle());
    StartPlayback();
    EXPECT_FALSE(Collects());
    EXPECT_TRUE(Logs("m_isDataCollectOn : [0]"));
    EXPECT_THAT(Arrived(), SizeIs(2));
}

TEST_F(CLibraryTest, WithoutTheKeyNothingIsCollected) {
    tallyra_testplatform_remove_key(kKey);
    MakePlayer();
    ASSERT_TRUE(Logs("Analyzer join terminate"));
    EXPECT_TRUE(Logs("regdb_get_bool REGDBKEY_TYLOG_ONOFF failed -3"));
    StartPlayback();
    EXPECT_FALSE(Collects());
    EXPECT_THAT(Arrived(), IsEmpty());
}

TEST_F(CLibraryTest, AFailingReadOfTheKeyStopsCollectionAtItsNextChange) {
    Connect();
    StartPlayback();
    tallyra_testplatform_fail("regdb_get_bool", 1, REGDB_ERROR_UNREADABLE);
    tallyra_testplatform_set_key(kKey, 2);
    ASSERT_TRUE(Settle());
    EXPECT_FALSE(Collects());
    EXPECT_TRUE(Logs("GetCollectOnOff failed!!"));
}

TEST_F(CLibraryTest, RecordsCarryTheVersionOfTheApplication) {
    tallyra_testplatform_set_version("org.example.app", "2.4.1");
    Connect();
    StartPlayback();
    const auto records = Arrived();
    ASSERT_THAT(records, SizeIs(1));
    EXPECT_EQ(records[0].serviceVersion, "2.4.1");
    EXPECT_EQ(records[0].networkType, 1);
}

TEST_F(CLibraryTest, RecordsOfAnUnknownApplicationCarryNoVersion) {
    tallyra_testplatform_set_version("org.example.app", nullptr);
    Connect();
    StartPlayback();
    EXPECT_TRUE(Logs("appcat_appinfo_get_usr_appinfo error : -2"));
    const auto records = Arrived();
    ASSERT_THAT(records, SizeIs(1));
    EXPECT_EQ(records[0].serviceVersion, "");
}

TEST_F(CLibraryTest, AStallOnWifiCarriesTheSignalStrength) {
    Connect();
    tallyra_testplatform_set_rssi(-71);
    tallyra_testplatform_set_network(CONNECTION_TYPE_WIFI);
    ASSERT_TRUE(Settle());
    StartPlayback();
    Event(TY_EVENT_BUFFERING_START);
    const auto records = Arrived();
    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(records[1].networkType, 2);
    EXPECT_EQ(records[1].param2, -71);
}

TEST_F(CLibraryTest, AFailingSignalIsRecordedAsSuch) {
    tallyra_testplatform_set_network(CONNECTION_TYPE_WIFI);
    tallyra_testplatform_fail("wifi_manager_ap_get_rssi", 0, WIFI_MANAGER_ERROR_NO_SIGNAL);
    Connect();
    StartPlayback();
    Event(TY_EVENT_BUFFERING_START);
    const auto records = Arrived();
    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(records[1].param2, -200);
    EXPECT_TRUE(Logs("wifi_ap_get_rssi error : -4!!!"));
}

TEST_F(CLibraryTest, ADeletedCollectorLeavesNoCallbackBehind) {
    Connect();
    m_pPlayer.reset();
    EXPECT_EQ(tallyra_testplatform_calls("regdb_ignore_key_changed"), 1);
    EXPECT_EQ(tallyra_testplatform_calls("connection_destroy"), 1);
    const long reads = tallyra_testplatform_calls("regdb_get_bool");
    tallyra_testplatform_set_key(kKey, 0);
    tallyra_testplatform_set_network(CONNECTION_TYPE_WIFI);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(tallyra_testplatform_calls("regdb_get_bool"), reads);
}

}  // namespace
