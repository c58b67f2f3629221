// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <tuple>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class CEventRulesTest : public CCollectorTest {};

TEST_F(CEventRulesTest, EventsBeforeAStartAreDropped) {
    SetContent();
    for (int event = 2; event <= 10; ++event) {
        Event(event);
        EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag,
                           "Do not start play, so do not collect data " + std::to_string(event)));
    }
    EXPECT_THAT(Reported(), IsEmpty());
}

TEST_F(CEventRulesTest, StartCarriesTheContentsStartTime) {
    SetContent("film.mp4", "Film", 4711);
    Event(TY_EVENT_START, 1, 2);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "[EXCUTE] event type : 1"));
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 4711 2"));
}

TEST_F(CEventRulesTest, PlaybackIdentifierIsThreadSecondAndNanosecondCutToItsField) {
    StartPlayback();
    char digits[64];
    std::snprintf(digits, sizeof(digits), "%05u%010lu%09d", static_cast<unsigned>(gettid()),
                  1000000UL, 5);
    const std::string expected(digits, 24);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "TY_EVENT_START playbackID is " + expected));
    const TYMediaData record = Reported().at(0);
    EXPECT_EQ(std::string(record.playbackID), expected);
}

TEST_F(CEventRulesTest, SecondStartIsADuplicateAndKeepsTheIdentifier) {
    StartPlayback();
    m_Clock.SetRealTime(2000000, 0);
    Event(TY_EVENT_START, 8, 9);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "[EXCUTE] error type : 203"));
    const auto records = Reported();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[1].event, TY_ERROR_DUPLICATED_START);
    EXPECT_EQ(records[1].param1, 8);
    EXPECT_EQ(records[1].param2, 9);
    const std::string playbackID = records[1].playbackID;
    EXPECT_EQ(playbackID, records[0].playbackID);
    EXPECT_TRUE(
        Logged(LOGSVC_ERROR, kTag,
               "start called more than two, so collect TY_ERROR_DUPLICATED_START " + playbackID));
}

TEST_F(CEventRulesTest, StartWithoutAUrlEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Event(TY_EVENT_START), "Assertion `false' failed");
}

TEST_F(CEventRulesTest, StartWithAnEmptyUrlEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            SetContent("", "Title");
            Event(TY_EVENT_START);
        },
        "Assertion `false' failed");
}

TEST_F(CEventRulesTest, StopCarriesTheLastPositionAndEndsThePlayback) {
    StartRendering();
    Event(8, 7000);
    Event(TY_EVENT_STOP, 1, 2);
    Event(9, 1);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Do not start play, so do not collect data 9"));
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "6 0 0", "8 7000 0", "2 7000 2"));
}

TEST_F(CEventRulesTest, EventsCarryTheParametersOfTheirRules) {
    StartPlayback();
    Event(TY_EVENT_PAUSE, 1, 2);
    Event(TY_EVENT_BUFFERING_START, 3, 4);
    Event(TY_EVENT_BUFFERING_END, 5, 6);
    Event(TY_EVENT_RESUME, 7, 8);
    Event(TY_EVENT_SEEK, 9, 10);
    Event(TY_EVENT_SEEK_COMPLETE, 11, 12);
    Event(77, 13, 14);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "3 -1 1", "4 -1 4", "5 5 6", "7 7 8",
                                             "9 -1 9", "10 11 12", "77 13 14"));
}

TEST_F(CEventRulesTest, BufferingStartOnWifiCarriesTheSignalStrength) {
    m_Platform.connectionType = CONNECTION_TYPE_WIFI;
    StartPlayback();
    Event(TY_EVENT_BUFFERING_START, 3, 4);
    const auto records = Reported();
    EXPECT_EQ(records.at(1).param2, -55);
    EXPECT_EQ(records.at(1).networkType, 2);
}

TEST_F(CEventRulesTest, BufferingStartWithoutWifiCarriesThePlayersParameter) {
    for (const auto& [connected, type, network] :
         {std::tuple{false, 0, 0}, std::tuple{true, 2, 255}, std::tuple{true, 3, 1}}) {
        m_Platform.gatewayConnected = connected;
        m_Platform.connectionType = type;
        StartPlayback();
        Event(TY_EVENT_BUFFERING_START, 3, 4);
        const auto record = Reported().back();
        EXPECT_EQ(record.event, TY_EVENT_BUFFERING_START);
        EXPECT_EQ(record.param2, 4);
        EXPECT_EQ(record.networkType, network);
        m_Platform.ClearLog();
    }
    EXPECT_EQ(m_Platform.Calls("wifi_manager_initialize"), 0U);
}

TEST_F(CEventRulesTest, RepeatedRenderStartIsLoggedAndRecorded) {
    StartRendering();
    Event(TY_EVENT_RENDER_START, 1, 2);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "[EXCUTE] event type : 205"));
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "6 0 0", "6 1 2"));
}

TEST_F(CEventRulesTest, PositionsAnchorBeatAndJump) {
    StartRendering();
    for (const int position : {0, 100000, 180000, 370000, 360000}) {
        Event(8, position);
    }
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "[EXCUTE] event type : 8, playbackTime = 0"));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "[EXCUTE] event type : 20"));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "[EXCUTE] error type : 204"), 2U);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "6 0 0", "8 0 0", "20 180000 180000",
                                             "204 370000 180000", "204 360000 370000"));
}

TEST_F(CEventRulesTest, HeartbeatWindowIncludesBothOfItsEnds) {
    StartRendering();
    for (const int position : {0, 179999, 189000, 378001}) {
        Event(8, position);
    }
    EXPECT_THAT(ReportedTexts(),
                ElementsAre("1 0 0", "6 0 0", "8 0 0", "20 189000 189000", "204 378001 189000"));
}

TEST_F(CEventRulesTest, PositionsBeforeTheFirstFrameAreIgnored) {
    StartPlayback();
    Event(8, 5000);
    Event(TY_EVENT_SEEK, 1);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "9 -1 1"));
}

TEST_F(CEventRulesTest, PositionsBetweenPauseAndResumeAreIgnored) {
    StartRendering();
    Event(8, 1000);
    Event(TY_EVENT_PAUSE, 1);
    Event(8, 5000);
    Event(TY_EVENT_RESUME);
    Event(TY_EVENT_SEEK, 2);
    Event(8, 6000, 3);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "6 0 0", "8 1000 0", "3 1000 1", "7 0 0",
                                             "9 1000 2", "8 6000 3"));
}

TEST_F(CEventRulesTest, SeekCompleteHasTheNextPositionRecordedAndKeepsTheReference) {
    StartRendering();
    Event(8, 1000);
    Event(TY_EVENT_SEEK_COMPLETE);
    Event(8, 50000);
    Event(8, 181000);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "6 0 0", "8 1000 0", "10 0 0", "8 50000 0",
                                             "20 181000 180000"));
}

TEST_F(CEventRulesTest, SeekCompleteOutlivesPositionsThatAreIgnored) {
    StartRendering();
    Event(8, 1000);
    Event(TY_EVENT_SEEK_COMPLETE);
    Event(TY_EVENT_PAUSE);
    Event(8, 40000);
    Event(TY_EVENT_RESUME);
    Event(8, 50000);
    Event(8, 60000);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "6 0 0", "8 1000 0", "10 0 0", "3 1000 0",
                                             "7 0 0", "8 50000 0"));
}

// A thread reports positions while another one pauses: that the reference has gone meanwhile is no
// jump from it.
TEST_F(CEventRulesTest, PauseBesideAPositionIsNoJump) {
    StartRendering();
    std::atomic<bool> done = false;
    std::thread reporter([&] {
        while (!done) {
            Event(8, 200000);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        Event(TY_EVENT_PAUSE);
        Event(TY_EVENT_RESUME);
    }
    done = true;
    reporter.join();
    EXPECT_THAT(ReportedTexts(), testing::Not(testing::Contains("204 200000 -1")));
}

TEST_F(CEventRulesTest, ErrorBeforeAnyContentIsDropped) {
    Collector().SendMediaError(static_cast<TY_ERROR_TYPE>(31));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Do not start play and url is empty. drop event 31"));
    EXPECT_THAT(Reported(), IsEmpty());
}

TEST_F(CEventRulesTest, ErrorBeforeAStartIsCollectedWhenThereIsAUrl) {
    SetContent();
    Collector().SendMediaError(static_cast<TY_ERROR_TYPE>(31));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Do not start play, but collect error event 31"));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "[EXCUTE] error type : 31"));
    const auto records = Reported();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].event, 31);
    EXPECT_EQ(records[0].playbackID[0], '\0');
}

}  // namespace
