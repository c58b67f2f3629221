// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"

#include <algorithm>
#include <cstring>

using receiver::Bytes;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const auto kSession = ElementsAre(TY_EVENT_START, kFreeEvent, TY_EVENT_STOP, TY_EVENT_PLAYING_TIME);
const auto kStartAndStop = ElementsAre(TY_EVENT_START, TY_EVENT_STOP, TY_EVENT_PLAYING_TIME);

class CSessionTest : public CPipelineTest {
  protected:
    static std::string Text(const Bytes& image, std::size_t offset) {
        return reinterpret_cast<const char*>(image.data()) + offset;
    }

    static std::int32_t Int(const Bytes& image, std::size_t offset) {
        std::int32_t value = 0;
        std::memcpy(&value, image.data() + offset, sizeof(value));
        return value;
    }

    /// @return the image without its identifier and times, which a test checks separately
    static Bytes WithoutTimes(Bytes image) {
        std::fill_n(image.begin() + 2, 25, 0);
        std::fill_n(image.begin() + 4792, 8, 0);
        return image;
    }

    static void Put(Bytes& image, std::size_t offset, const std::string& text) {
        std::copy(text.begin(), text.end(), image.begin() + static_cast<long>(offset));
    }

    static void PutInt(Bytes& image, std::size_t offset, std::int32_t value) {
        std::memcpy(image.data() + offset, &value, sizeof(value));
    }

    /// @return the image of the session's second record
    static Bytes ExpectedImage() {
        Bytes expected(4800);
        expected[0] = TY_PLAYER_WEB;
        expected[1] = 1;
        Put(expected, 27, "1.2.3");
        Put(expected, 39, "org.example.app");
        expected[92] = kFreeEvent;
        PutInt(expected, 96, -1);
        PutInt(expected, 100, 2);
        PutInt(expected, 104, 90);
        expected[112] = TY_DRM_WIDEVINE;
        expected[113] = TY_CONTENT_LIVE;
        Put(expected, 114, "channel");
        Put(expected, 370, "Film");
        Put(expected, 626, "genre");
        Put(expected, 694, "custom");
        return expected;
    }

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
};

TEST_F(CSessionTest, ArrivesInOrderWithEveryByteInItsPlaceAndItsUrls) {
    Connect();
    PlaySession();
    EXPECT_THAT(Arrived(), kSession);
    EXPECT_THAT(m_pService->Problems(), IsEmpty());
    const auto records = m_pService->Records();
    ASSERT_EQ(records.size(), 4U);
    EXPECT_EQ(WithoutTimes(records[1].image), ExpectedImage());
    EXPECT_EQ(Text(records[1].image, 2).size(), 24U);
    EXPECT_GT(Int(records[1].image, 4792), 1700000000);
    EXPECT_LT(Int(records[1].image, 4796), 1000000000);
    for (const auto& record : records) {
        EXPECT_EQ(record.strUrl, "http://server/a/film.mp4?x=1");
        EXPECT_EQ(record.record.playbackId, records[0].record.playbackId);
    }
    EXPECT_EQ(records[0].record.param1, 1234);
}

TEST_F(CSessionTest, BatchIsOneCallWhoseBodyHoldsImagesThenUrls) {
    Connect();
    PlaySession();
    const auto calls = m_pService->Calls("SendData");
    std::size_t records = 0;
    for (const auto& call : calls) {
        std::string expected = "iis";
        const std::size_t count = call.values.size() / 2;
        for (std::size_t i = 0; i < count; ++i) {
            expected += "iiay";
        }
        for (std::size_t i = 0; i < count; ++i) {
            expected += "iis";
        }
        EXPECT_THAT(call.strSignature, testing::AnyOf(expected, "(" + expected + ")"));
        records += count;
    }
    EXPECT_EQ(records, 4U);
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

TEST_F(CSessionTest, UrlTooLongForTheBusIsCutAndItsRecordsArrive) {
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
