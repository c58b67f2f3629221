// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class CCollectorLifecycleTest : public CCollectorTest {
  protected:
    /// Has the absent service appear at the next poll.
    void ServiceAppears() {
        m_Bus.SetOwner(true);
        m_Clock.Advance(std::chrono::seconds(1));
    }
};

class CKeyAtConstructionTest : public CCollectorLifecycleTest,
                               public testing::WithParamInterface<int> {};

TEST_P(CKeyAtConstructionTest, OtherThanOneCollectsNothing) {
    m_Platform.keyValue = GetParam();
    CollectorWithoutService();
    StartPlayback();
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "m_isDataCollectOn : [0]"));
    EXPECT_TRUE(NotLogged("event 1."));
}

INSTANTIATE_TEST_SUITE_P(Values, CKeyAtConstructionTest, testing::Values(0, 2, -1, 257));

TEST_F(CCollectorLifecycleTest, KeyThatCannotBeReadAtConstructionCollectsNothing) {
    m_Platform.keyResult = -3;
    CollectorWithoutService();
    StartPlayback();
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "regdb_get_bool REGDBKEY_TYLOG_ONOFF failed -3"));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "m_isDataCollectOn : [0]"));
}

TEST_F(CCollectorLifecycleTest, KeyIsReadAgainWhenTheServiceComes) {
    m_Platform.keyValue = 0;
    CollectorWithoutService();
    m_Platform.keyValue = 1;
    ServiceAppears();
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    StartPlayback();
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0"));
}

TEST_F(CCollectorLifecycleTest, KeyThatCannotBeReadWhenTheServiceComesEndsThePlayback) {
    CollectorWithoutService();
    StartPlayback();
    m_Platform.keyResult = -3;
    ServiceAppears();
    ASSERT_TRUE(m_Platform.WaitForLog("drop collected data"));
    m_pCollector.reset();
    EXPECT_THAT(m_Bus.Calls("GetPolicyInfo"), IsEmpty());
    EXPECT_THAT(SentRecords(), IsEmpty());
    EXPECT_TRUE(NotLogged("Sender thread start done"));
}

TEST_F(CCollectorLifecycleTest, EndedCollectionStopsTheAnalyzerBeforeItClearsTheQueue) {
    CollectorWithoutService();
    StartPlayback();
    m_Platform.keyResult = -3;
    ServiceAppears();
    ASSERT_TRUE(m_Platform.WaitForLog("drop collected data"));
    const auto log = m_Platform.Log();
    const auto at = [&](const std::string& text) {
        return std::find_if(log.begin(), log.end(),
                            [&](const auto& line) { return line.text == text; });
    };
    EXPECT_LT(at("Analyzer join terminate"), at("drop collected data"));
}

TEST_F(CCollectorLifecycleTest, ReportedEventWakesTheAnalyzerAtOnce) {
    Collector();
    ASSERT_TRUE(m_Clock.AwaitWaiter(std::chrono::seconds(20), std::chrono::seconds(30), 2));
    StartPlayback();
    EXPECT_TRUE(m_Platform.WaitForLog("event 1."));
}

TEST_F(CCollectorLifecycleTest, PolicyRequestThatFailsOnTheBusSwitchesOff) {
    m_Bus.SetReply("GetPolicyInfo", {{}, "no answer"});
    CollectorWithoutService();
    StartPlayback();
    ServiceAppears();
    ASSERT_TRUE(m_Platform.WaitForLog("drop collected data"));
    m_pCollector.reset();
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "result : 0, pInfo : 0 "));
    EXPECT_THAT(SentRecords(), IsEmpty());
}

TEST_F(CCollectorLifecycleTest, PlatformIsUsedAndGivenBackInOrder) {
    Collector();
    m_pCollector.reset();
    EXPECT_THAT(m_Platform.Journal(),
                ElementsAre("connection_create", "connection_set_network_monitor_cb",
                            "connection_profile_check_default_gateway", "connection_get_type",
                            "appcat_appinfo_get_usr_appinfo", "appcat_appinfo_get_pkgid",
                            "appcat_pkginfo_get_pkginfo", "appcat_pkginfo_get_version",
                            "appcat_pkginfo_destroy_pkginfo", "appcat_appinfo_destroy_appinfo",
                            "regdb_get_bool", "regdb_notify_key_changed", "regdb_get_bool",
                            "regdb_ignore_key_changed", "connection_unset_network_monitor_cb",
                            "connection_destroy"));
}

TEST_F(CCollectorLifecycleTest, OneBusConnectionIsOpenedAndClosed) {
    Collector();
    EXPECT_EQ(m_Bus.Count("OpenPrivate"), 1U);
    EXPECT_EQ(m_Bus.Count("Close"), 0U);
    m_pCollector.reset();
    EXPECT_EQ(m_Bus.Count("OpenPrivate"), 1U);
    EXPECT_EQ(m_Bus.Count("Close"), 1U);
}

TEST_F(CCollectorLifecycleTest, AnalyzerStartsAtOnceAndTheSenderWaitsForTheService) {
    CollectorWithoutService();
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "Analyzer thread start done"));
    EXPECT_TRUE(NotLogged("Sender thread start done"));
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
}

TEST_F(CCollectorLifecycleTest, CollectorThatGoesBeforeTheServiceComesDropsItsRecords) {
    CollectorWithoutService();
    StartPlayback();
    m_pCollector.reset();
    EXPECT_THAT(SentRecords(), IsEmpty());
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Can't connect to service. Stop logging"));
    EXPECT_TRUE(
        Logged(LOGSVC_ERROR, kTag, "regdb_ignore_key_changed REGDBKEY_TYLOG_ONOFF error : -1"));
}

TEST_F(CCollectorLifecycleTest, DeletionDeliversWhatIsQueued) {
    StartPlayback();
    for (int i = 0; i < 100; ++i) {
        Event(99, i);
    }
    const auto records = Reported();
    ASSERT_EQ(records.size(), 101U);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(records[static_cast<std::size_t>(i) + 1].param1, i);
    }
}

TEST_F(CCollectorLifecycleTest, PlaybackOfOneCollectorIsNotThatOfAnother) {
    StartPlayback();
    CTYDataCollector other("org.example.other", TY_PLAYER_WEB, m_Bus, m_Clock);
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done", 2));
    other.SendMediaEvent(TY_EVENT_SEEK, 0, 0);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Do not start play, so do not collect data 9"));
    EXPECT_EQ(m_Platform.CountLog("Analyzer thread start done"), 2U);
}

TEST_F(CCollectorLifecycleTest, EveryRecordOfEveryThreadArrives) {
    StartPlayback();
    std::vector<std::thread> players;
    players.reserve(4);
    for (int player = 0; player < 4; ++player) {
        players.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                Event(99, i);
            }
        });
    }
    for (std::thread& player : players) {
        player.join();
    }
    m_pCollector.reset();
    const std::vector<int> events = SentEvents();
    EXPECT_EQ(std::count(events.begin(), events.end(), 99), 200);
}

TEST_F(CCollectorLifecycleTest, CollectorMayGoAsSoonAsItCame) {
    for (int i = 0; i < 30; ++i) {
        const CTYDataCollector collector("org.example.app", TY_PLAYER_NATIVE, m_Bus, m_Clock);
    }
    EXPECT_EQ(m_Platform.CountLog("CTYDataCollector Destroy >>"), 30U);
    EXPECT_EQ(m_Bus.Count("Close"), 30U);
    EXPECT_EQ(m_Platform.NetworkMonitors(), 0U);
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
}

TEST_F(CCollectorLifecycleTest, EveryLineSaysWhereItComesFrom) {
    StartRendering();
    Event(8, 180000);
    Collector().Execute(300, 0, "");
    Event(2);
    m_pCollector.reset();
    for (const CPlatformDouble::LogLine& line : m_Platform.Log()) {
        EXPECT_EQ(line.buffer, LOGSVC_MAIN) << line.text;
        EXPECT_THAT(line.file, testing::MatchesRegex("TY[A-Za-z]+\\.cpp")) << line.text;
        EXPECT_FALSE(line.function.empty()) << line.text;
        EXPECT_GT(line.line, 0) << line.text;
        EXPECT_THAT(line.tag, testing::AnyOf("TALLYRA", "TALLYRA_UTIL")) << line.text;
    }
    EXPECT_GT(m_Platform.Log().size(), 50U);
}

}  // namespace
