// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

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
    EXPECT_THAT(Arrived(),
                ElementsAre(TY_EVENT_START, kFreeEvent, TY_EVENT_STOP, TY_EVENT_PLAYING_TIME));
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

TEST_F(CSessionTest, UrlThatIsTooLongForTheBusIsCutAndItsRecordsArrive) {
    Connect();
    StartPlayback(std::string(9 << 20, 'u'));
    Event(TY_EVENT_STOP);
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), ElementsAre(TY_EVENT_START, TY_EVENT_STOP, TY_EVENT_PLAYING_TIME));
    for (const auto& record : m_pService->Records()) {
        EXPECT_EQ(record.strUrl.size(), (8U << 20) - 4800);
    }
    EXPECT_EQ(m_Platform.CountLog("URL of 9437184 bytes is cut to 8383808"), 1U);
}

TEST_F(CSessionTest, MalformedReplyOfTwentyMebibytesLosesTheBatchAndNothingElse) {
    Connect();
    const std::vector<receiver::Value> values{1, receiver::Bytes(20 << 20)};
    m_pService->SetReply("SendData", values);
    StartPlayback();
    Event(TY_EVENT_STOP);
    ASSERT_TRUE(WaitForLog("SendData failed, data clear"));
    EXPECT_GE(m_Platform.CountLog("Invalid response type"), 1U);
    // A sender that has only just started may take them in two batches.
    ASSERT_TRUE(m_pService->WaitForRecords(3, kPatience));
    m_pService->SetReply("SendData", std::nullopt);
    const std::size_t before = m_pService->Records().size();
    StartPlayback();
    m_pCollector.reset();
    EXPECT_EQ(m_pService->Records().size(), before + 1);
}

}  // namespace
