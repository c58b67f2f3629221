// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const auto kSession = ElementsAre(TY_EVENT_START, kFreeEvent, TY_EVENT_STOP, TY_EVENT_PLAYING_TIME);
const auto kStartAndStop = ElementsAre(TY_EVENT_START, TY_EVENT_STOP, TY_EVENT_PLAYING_TIME);

class CSessionTest : public CPipelineTest {
  protected:
    /// Plays a session with every field set.
    void PlaySession() {
        std::string url = "http://server/a/film.mp4?x=1";
        CTYContentInfo info(&url, 1234);
        info.SetTitle("Film");
        info.SetChannelID("channel");
        info.SetGenre("genre");
        info.SetCustomInfo("custom");
        info.SetDuration(90);
        info.SetDrmType(TY_DRM_WIDEVINE);
        info.SetContentType(TY_CONTENT_LIVE);
        m_pCollector->SetContentInfo(&info);
        Event(TY_EVENT_START, 0, 7);
        Event(kFreeEvent, -1, 2);
        Event(TY_EVENT_STOP);
        m_pCollector.reset();
    }

    static void ExpectFields(const receiver::Record& record) {
        EXPECT_EQ(record.strProblem, "");
        EXPECT_EQ(record.playerId, TY_PLAYER_WEB);
        EXPECT_EQ(record.networkType, 1);
        EXPECT_EQ(record.playbackId.size(), 24U);
        EXPECT_EQ(record.serviceVersion, "1.2.3");
        EXPECT_EQ(record.serviceId, "org.example.app");
        EXPECT_EQ(record.param1, -1);
        EXPECT_EQ(record.param2, 2);
        EXPECT_EQ(record.duration, 90);
        EXPECT_EQ(record.urlSlot, 0U);
        EXPECT_EQ(record.drmType, TY_DRM_WIDEVINE);
        EXPECT_EQ(record.contentType, TY_CONTENT_LIVE);
        EXPECT_EQ(record.channelId + record.title + record.genre + record.customInfo,
                  "channelFilmgenrecustom");
        EXPECT_GT(record.seconds, 1700000000);
        EXPECT_LT(record.nanoseconds, 1000000000);
    }
};

TEST_F(CSessionTest, ArrivesInOrderWithEveryFieldAndItsUrls) {
    Connect();
    PlaySession();
    EXPECT_THAT(Arrived(), kSession);
    EXPECT_THAT(m_pService->Problems(), IsEmpty());
    const auto records = m_pService->Records();
    ASSERT_EQ(records.size(), 4U);
    ExpectFields(records[1].record);
    EXPECT_EQ(records[0].record.param1, 1234);
    for (const auto& record : records) {
        EXPECT_EQ(record.strUrl, "http://server/a/film.mp4?x=1");
        EXPECT_EQ(record.record.playbackId, records[0].record.playbackId);
    }
}

TEST_F(CSessionTest, StopIsSentAtOnce) {
    Connect();
    StartPlayback();
    Event(TY_EVENT_STOP);
    EXPECT_TRUE(m_pService->WaitForEvent(TY_EVENT_PLAYING_TIME, 1, kPatience));
    EXPECT_THAT(Arrived(), kStartAndStop);
}

TEST_F(CSessionTest, BytesThatAreNotUtf8ArriveReplaced) {
    Connect();
    SetContent("a\xff.mp4");
    Event(TY_EVENT_START);
    m_pCollector.reset();
    ASSERT_EQ(m_pService->Records().size(), 1U);
    EXPECT_EQ(m_pService->Records()[0].strUrl, "a\uFFFD.mp4");
}

TEST_F(CSessionTest, UrlThatIsTooLongForTheBusIsCutAndItsRecordsArrive) {
    Connect();
    SetContent(std::string(9 << 20, 'u'));
    Event(TY_EVENT_START);
    Event(TY_EVENT_STOP);
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), kStartAndStop);
    for (const auto& record : m_pService->Records()) {
        EXPECT_EQ(record.strUrl.size(), (8U << 20) - 4800);
    }
    EXPECT_EQ(m_Platform.CountLog("URL of 9437184 bytes is cut to 8383808"), 1U);
}

TEST_F(CSessionTest, TwoCollectorsSendConcurrently) {
    Connect();
    SetContent();
    const std::unique_ptr<ITYDataCollector> first = std::move(m_pCollector);
    MakeCollector();
    ASSERT_TRUE(WaitForLog("Sender thread start done", 2));
    SetContent("other.mp4");
    Event(TY_EVENT_START);
    Event(TY_EVENT_STOP);
    first->SendMediaEvent(TY_EVENT_START, 0, 0);
    first->SendMediaEvent(TY_EVENT_STOP, 0, 0);
    EXPECT_TRUE(m_pService->WaitForRecords(6, kPatience));
}

}  // namespace
