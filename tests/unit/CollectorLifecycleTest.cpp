// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using CCollectorLifecycleTest = CCollectorTest;

TEST_F(CCollectorLifecycleTest, ReportedEventWakesTheAnalyzerAtOnce) {
    Collector();
    ASSERT_TRUE(m_Clock.AwaitWaiter(std::chrono::seconds(20), std::chrono::seconds(30), 2));
    StartPlayback();
    EXPECT_TRUE(m_Platform.WaitForLog("event 1."));
}

TEST_F(CCollectorLifecycleTest, PlatformIsCalledAndReleasedInOrder) {
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

TEST_F(CCollectorLifecycleTest, WithoutAServiceOnlyTheAnalyzerStartsAndRecordsAreDropped) {
    CollectorWithoutService();
    EXPECT_TRUE(Info("Analyzer thread start done"));
    EXPECT_TRUE(NotLogged("Sender thread start done"));
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
    StartPlayback();
    m_pCollector.reset();
    EXPECT_THAT(SentRecords(), IsEmpty());
    EXPECT_TRUE(Error("Can't connect to service. Stop logging"));
    EXPECT_TRUE(Error("regdb_ignore_key_changed REGDBKEY_TYLOG_ONOFF error : -1"));
}

TEST_F(CCollectorLifecycleTest,
       TwoCollectorsHaveTwoPlaybacksAndOneStillWatchesTheKeyWithoutTheOther) {
    StartPlayback();
    CTYDataCollector other("org.example.other", TY_PLAYER_WEB, m_Bus, m_Clock);
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done", 2));
    other.SendMediaEvent(TY_EVENT_SEEK, 0, 0);
    EXPECT_TRUE(Error("Do not start play, so do not collect data 9"));
    EXPECT_EQ(m_Platform.CountLog("Analyzer thread start done"), 2U);
    m_pCollector.reset();
    m_Platform.FireKeyChanged();
    EXPECT_TRUE(Info("m_isDataCollectOn : [1]"));
}

TEST_F(CCollectorLifecycleTest, ResetForgetsThePlaybackAndNothingElse) {
    StartRendering();
    Event(TY_EVENT_PLAYBACK_TIME, 5000);
    EXPECT_TRUE(Collector().Execute(100, 0, ""));
    Collector().Reset();
    Event(TY_EVENT_SEEK);
    EXPECT_TRUE(Error("Do not start play, so do not collect data 9"));
    m_Clock.SetRealTime(kNow + 5, 0);
    Event(TY_EVENT_START);
    m_Clock.SetRealTime(kNow + 16, 0);
    EXPECT_FALSE(Collector().Execute(100, 0, ""));
    const auto records = Reported();
    EXPECT_STREQ(records.back().content.title, "Film");
    EXPECT_STREQ(records.back().serviceID, "org.example.app");
    EXPECT_EQ(records.back().param1, -1);
}

TEST_F(CCollectorLifecycleTest, EveryRecordOfEveryThreadArrives) {
    StartPlayback();
    std::vector<std::thread> players;
    for (int player = 0; player < 4; ++player) {
        players.emplace_back([&] { ReportAll(Reports(50, {kFreeEvent})); });
    }
    for (std::thread& player : players) {
        player.join();
    }
    m_pCollector.reset();
    const std::vector<int> events = SentEvents();
    EXPECT_EQ(std::count(events.begin(), events.end(), kFreeEvent), 200);
}

TEST_F(CCollectorLifecycleTest, EveryLogLineNamesItsFileFunctionAndLine) {
    StartRendering();
    Event(TY_EVENT_PLAYBACK_TIME, 180000);
    Collector().Execute(300, 0, "");
    Event(TY_EVENT_STOP);
    m_pCollector.reset();
    for (const CPlatformDouble::LogLine& line : m_Platform.Log()) {
        EXPECT_EQ(line.buffer, LOGSVC_MAIN) << line.text;
        EXPECT_THAT(line.file, testing::MatchesRegex("TY[A-Za-z]+\\.cpp")) << line.text;
        EXPECT_FALSE(line.function.empty()) << line.text;
        EXPECT_GT(line.line, 0) << line.text;
        EXPECT_THAT(line.tag, testing::AnyOf(kTag, kTagUtil)) << line.text;
    }
    EXPECT_GT(m_Platform.Log().size(), 50U);
    EXPECT_TRUE(Debug("CTYDataCollector Create >>"));
    EXPECT_TRUE(Info("ty interface version 1.2"));
    EXPECT_TRUE(Info("CTYDataCollector Destroy >>"));
}

}  // namespace
