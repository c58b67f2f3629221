// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <gmock/gmock.h>

#include <cstring>
#include <thread>

using testing::ElementsAre;

namespace {

class CContentTest : public CCollectorTest {
  protected:
    std::string Path(std::string url) {
        Collector().GetPathFromUrl(&url);
        return url;
    }

    void PassNulls() {
        int version = 77;
        Collector().SetServiceVersion(nullptr);
        Collector().SetContentInfo(nullptr);
        Collector().SetServiceID(nullptr);
        EXPECT_FALSE(Collector().GetVersion(nullptr, &version));
        EXPECT_FALSE(Collector().GetVersion(&version, nullptr));
        EXPECT_EQ(version, 77);
    }

    static std::string Image(const TYMediaData& record) {
        return {reinterpret_cast<const char*>(&record), sizeof(record)};
    }

    /// Starts a playback of content with a URL and a title.
    /// @return the URL that was recorded
    std::string RecordedUrl(const std::string& url, const std::string& title) {
        SetContent(url, title);
        Event(TY_EVENT_START);
        m_pCollector.reset();
        return SentUrls().at(0);
    }
};

TEST_F(CContentTest, PathIsWhatStandsBetweenServerAndQuery) {
    EXPECT_EQ(Path("http://server/dir/a.mp4?x=1"), "dir/a.mp4");
    EXPECT_EQ(Path("http://server/dir/a.mp4"), "dir/a.mp4");
    EXPECT_EQ(Path("/media/a.mp4?x=1"), "/media/a.mp4");
    EXPECT_EQ(Path("/media/a.mp4"), "/media/a.mp4");
    EXPECT_EQ(Path("http://server/"), "");
    EXPECT_EQ(Path(""), "");
    EXPECT_EQ(Path("?x"), "");
}

TEST_F(CContentTest, ServerWithoutAPathKeepsItsSeparator) {
    EXPECT_EQ(Path("http://server"), "://server");
    EXPECT_EQ(Path("http://server?x=1"), "://server");
    EXPECT_EQ(Path("http://server?x=/y"), "y");
}

TEST_F(CContentTest, RecordHasTheWholeOfOneContentWhileAnotherThreadChangesIt) {
    SetContent("0", "0");
    std::thread changer([this] {
        for (int i = 1; i < 2000; ++i) {
            SetContent(std::to_string(i), std::to_string(i));
        }
    });
    for (int i = 0; i < 2000; ++i) {
        Collector().SendMediaError(static_cast<TY_ERROR_TYPE>(31));
    }
    changer.join();
    m_pCollector.reset();
    const auto records = SentRecords();
    const auto urls = SentUrls();
    ASSERT_EQ(records.size(), 2000U);
    for (std::size_t i = 0; i < records.size(); ++i) {
        ASSERT_EQ(records[i].content.title, urls[i]);
    }
}

TEST_F(CContentTest, UrlOfUntitledContentIsItsPath) {
    EXPECT_EQ(RecordedUrl("http://server/a/b.ts?token=1", ""), "a/b.ts");
}

TEST_F(CContentTest, UrlOfTitledContentIsWhole) {
    EXPECT_EQ(RecordedUrl("http://server/a/b.ts?token=1", "Title"), "http://server/a/b.ts?token=1");
}

TEST_F(CContentTest, UrlEndsAtItsFirstNul) {
    EXPECT_EQ(RecordedUrl(std::string("a\0b", 3), "Title"), "a");
}

TEST_F(CContentTest, TextsAreCutToTheirFields) {
    std::string url = "u";
    CTYContentInfo info(&url, 0);
    info.SetChannelID(std::string(300, 'c'));
    info.SetTitle(std::string(300, 't'));
    info.SetGenre(std::string(300, 'g'));
    info.SetCustomInfo(std::string(5000, 'i'));
    Collector().SetContentInfo(&info);
    Event(TY_EVENT_START);
    const TYMediaData record = Reported().at(0);
    EXPECT_EQ(std::string(record.content.channelID), std::string(255, 'c'));
    EXPECT_EQ(std::string(record.content.title), std::string(255, 't'));
    EXPECT_EQ(std::string(record.content.genre), std::string(67, 'g'));
    EXPECT_EQ(std::string(record.content.customInfo), std::string(4095, 'i'));
}

TEST_F(CContentTest, RecordCarriesIdentityContentTimeAndNetwork) {
    std::string url = "u";
    CTYContentInfo info(&url, 7);
    info.SetDuration(90);
    info.SetDrmType(TY_DRM_WIDEVINE);
    info.SetContentType(TY_CONTENT_LIVE);
    Collector().SetContentInfo(&info);
    Event(TY_EVENT_START);
    const TYMediaData record = Reported().at(0);
    EXPECT_EQ(record.playerID, TY_PLAYER_NATIVE);
    EXPECT_EQ(record.networkType, 1);
    EXPECT_STREQ(record.serviceID, "org.example.app");
    EXPECT_STREQ(record.serviceVersion, "1.2.3");
    EXPECT_EQ(record.content.duration, 90);
    EXPECT_EQ(record.content.pUrl, 0U);
    EXPECT_EQ(record.content.drmType, TY_DRM_WIDEVINE);
    EXPECT_EQ(record.content.contentType, TY_CONTENT_LIVE);
    EXPECT_EQ(record.time.sec, 1000000);
    EXPECT_EQ(record.time.nsec, 5);
}

TEST_F(CContentTest, UnknownNetworkArrivesAs255) {
    m_Platform.connectionType = CONNECTION_TYPE_CELLULAR;
    StartPlayback();
    EXPECT_EQ(Reported().at(0).networkType, 255);
}

TEST_F(CContentTest, ClockThatFailsGivesAZeroTime) {
    SetContent();
    m_Clock.FailRealTime(true);
    Event(TY_EVENT_START);
    EXPECT_LE(1U, m_Platform.CountLog(LOGSVC_ERROR, kTag, "clock_gettime failed!!!"));
    const TYMediaData record = Reported().at(0);
    EXPECT_EQ(record.time.sec, 0);
    EXPECT_EQ(record.time.nsec, 0);
}

TEST_F(CContentTest, SameUrlDuringAPlaybackTakesDrmTypeAndTextsOnly) {
    SetContent("film.mp4", "Film", 3);
    Event(TY_EVENT_START);
    std::string url = "film.mp4";
    CTYContentInfo info(&url, 9);
    info.SetTitle("New title");
    info.SetDuration(77);
    info.SetDrmType(TY_DRM_CLEARKEY);
    info.SetContentType(TY_CONTENT_LIVE);
    Collector().SetContentInfo(&info);
    Event(99);
    const auto records = Reported();
    EXPECT_STREQ(records.at(1).content.title, "New title");
    EXPECT_EQ(records.at(1).content.drmType, TY_DRM_CLEARKEY);
    EXPECT_EQ(records.at(1).content.duration, 0);
    EXPECT_EQ(records.at(1).content.contentType, 255);
}

TEST_F(CContentTest, OtherUrlDuringAPlaybackEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            StartPlayback();
            SetContent("other.mp4");
        },
        "Assertion `false' failed");
}

TEST_F(CContentTest, NewContentOutsideAPlaybackReplacesTheOld) {
    SetContent("old.mp4", "Old");
    Collector().SetDuration(5);
    SetContent("new.mp4", "New", 8);
    Event(TY_EVENT_START);
    const auto records = Reported();
    EXPECT_EQ(records.at(0).content.duration, 0);
    EXPECT_STREQ(records.at(0).content.title, "New");
    EXPECT_EQ(records.at(0).param1, 8);
    EXPECT_THAT(SentUrls(), ElementsAre("new.mp4"));
}

TEST_F(CContentTest, SettersReachTheRecord) {
    SetContent();
    Collector().SetDuration(123);
    Collector().SetDrmType(static_cast<TY_DRM_TYPE>(300));
    Collector().SetContentType(TY_CONTENT_NOT_SET);
    Collector().SetServiceVersion("123456789012345");
    EXPECT_EQ(Collector().GetDrmType(), 44);
    EXPECT_EQ(Collector().GetContentType(), -1);
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "[EXCUTE]"), 3U);
    Event(TY_EVENT_START);
    const TYMediaData record = Reported().at(0);
    EXPECT_EQ(record.content.duration, 123);
    EXPECT_STREQ(record.serviceVersion, "12345678901");
}

TEST_F(CContentTest, TypesStartAtZero) {
    EXPECT_EQ(Collector().GetDrmType(), 0);
    EXPECT_EQ(Collector().GetContentType(), 0);
}

TEST_F(CContentTest, NullsAreLoggedAndChangeNothing) {
    SetFullContent();
    Collector().SendMediaError(static_cast<TY_ERROR_TYPE>(31));
    PassNulls();
    Collector().SendMediaError(static_cast<TY_ERROR_TYPE>(31));
    Event(TY_EVENT_START);
    Event(99);
    PassNulls();
    Event(99);
    const auto records = Reported();
    ASSERT_THAT(SentEvents(), ElementsAre(31, 31, 1, 99, 99));
    EXPECT_EQ(Image(records[1]), Image(records[0]));
    EXPECT_EQ(Image(records[4]), Image(records[3]));
    EXPECT_EQ(records[2].param1, 7);
    EXPECT_THAT(SentUrls(), testing::Each("http://server/film.mp4"));
    for (const char* text :
         {"pServiceVersion is NULL.", "pContentInfo is NULL.", "pServiceID is NULL."}) {
        EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTag, text), 2U) << text;
    }
}

class CExecuteTest : public CCollectorTest {
  protected:
    bool At(int secondsAfterStart, int code = 100) {
        m_Clock.SetRealTime(1000000 + secondsAfterStart, 0);
        return Collector().Execute(code, 5, "text");
    }
};

TEST_F(CExecuteTest, RecordCarriesValueAndText) {
    StartPlayback();
    EXPECT_TRUE(Collector().Execute(100, -5, std::string(5000, 'x')));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "[EXCUTE] event type : 100"));
    const TYMediaData record = Reported().at(1);
    EXPECT_EQ(record.event, 100);
    EXPECT_EQ(record.param1, -5);
    EXPECT_EQ(record.param2, 0);
    EXPECT_EQ(std::string(record.content.customInfo), std::string(4095, 'x'));
}

TEST_F(CExecuteTest, EverythingPassesInTheFirstTenSeconds) {
    StartPlayback();
    EXPECT_TRUE(At(5));
    EXPECT_TRUE(At(5));
    EXPECT_TRUE(At(10));
}

TEST_F(CExecuteTest, CodePassesOnceAMinuteAfterThat) {
    StartPlayback();
    EXPECT_TRUE(At(20));
    EXPECT_FALSE(At(50));
    EXPECT_FALSE(At(79));
    EXPECT_TRUE(At(79, 101));
    EXPECT_TRUE(At(80));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "too many [100] event"), 2U);
}

TEST_F(CExecuteTest, CodesBeyondAByteAreInvalid) {
    StartPlayback();
    EXPECT_FALSE(At(1, 256));
    EXPECT_FALSE(At(1, -1));
    EXPECT_TRUE(At(1, 255));
    EXPECT_TRUE(At(1, 0));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTag, "Invalid event type"), 2U);
}

TEST_F(CExecuteTest, NothingPassesWithoutAPlayback) {
    SetContent();
    EXPECT_FALSE(At(1));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Do not start play, so do not collect data"));
}

TEST_F(CExecuteTest, NothingPassesWhileCollectionIsOff) {
    StartPlayback();
    m_Platform.ChangeKey(0);
    EXPECT_FALSE(At(1));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "m_isDataCollectOn : [0]"));
}

}  // namespace
