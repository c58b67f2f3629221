// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

using testing::Each;
using testing::ElementsAre;

namespace {

class CContentTest : public CCollectorTest {
  protected:
    void PassNulls() {
        Collector().SetServiceVersion(nullptr);
        Collector().SetContentInfo(nullptr);
        Collector().SetServiceID(nullptr);
    }

    static std::string Image(const TYMediaData& record) {
        return {reinterpret_cast<const char*>(&record), sizeof(record)};
    }
};

const std::pair<std::string, std::string> kPaths[] = {
    {"http://server/dir/a.mp4?x=1", "dir/a.mp4"},
    {"http://server/dir/a.mp4", "dir/a.mp4"},
    {"/media/a.mp4?x=1", "/media/a.mp4"},
    {"/media/a.mp4", "/media/a.mp4"},
    {"http://server/", ""},
    {"", ""},
    {"?x", ""},
    // A server without a path keeps its separator.
    {"http://server", "://server"},
    {"http://server?x=1", "://server"},
    {"http://server?x=/y", "y"},
    // The first separator of each kind counts.
    {"http://server/a?b/c", "a"},
    {"http://server/a?u=http://other/b", "a"},
    {"http://server//a", "/a"},
    {"file:///media/a.mp4", "media/a.mp4"},
    // A scheme behind a query counts too.
    {"a?u=http://other/b", "b"},
    {"a?u=http://other", "://other"},
    {"://?", "://"},
    {"http:/server/a", "http:/server/a"},
};

TEST_F(CContentTest, PathOfAUrlIsBetweenServerAndQuery) {
    for (const auto& [url, path] : kPaths) {
        std::string changed = url;
        Collector().GetPathFromUrl(&changed);
        EXPECT_EQ(changed, path) << url;
    }
}

TEST_F(CContentTest, RecordedUrlIsThePathOfUntitledContentAndEndsAtItsFirstNul) {
    const std::pair<std::string, std::string> contents[] = {{"http://server/a/b.ts?token=1", ""},
                                                            {"http://server/b.ts?token=1", "Title"},
                                                            {std::string("a\0b", 3), "Title"}};
    for (const auto& [url, title] : contents) {
        SetContent(url, title);
        Collector().SendMediaError(kFreeError);
    }
    m_pCollector.reset();
    EXPECT_THAT(SentUrls(), ElementsAre("a/b.ts", "http://server/b.ts?token=1", "a"));
}

TEST_F(CContentTest, UntitledContentMayChangeItsQueryDuringAPlayback) {
    SetContent("http://server/a.ts?token=1", "");
    Event(TY_EVENT_START);
    SetContent("http://server/a.ts?token=2", "");
    Event(kFreeEvent);
    m_pCollector.reset();
    EXPECT_THAT(SentUrls(), ElementsAre("a.ts", "a.ts"));
}

TEST_F(CContentTest, RecordNeverMixesTwoContentsThatAnotherThreadSets) {
    SetContent("0", "0");
    std::thread changer([this] {
        for (int i = 1; i < 2000; ++i) {
            SetContent(std::to_string(i), std::to_string(i));
        }
    });
    for (int i = 0; i < 2000; ++i) {
        Collector().SendMediaError(kFreeError);
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

TEST_F(CContentTest, RecordHasAZeroTimeIfTheClockFails) {
    SetContent();
    m_Clock.FailRealTime(true);
    Event(TY_EVENT_START);
    EXPECT_LE(1U, m_Platform.CountLog(LOGSVC_ERROR, kTag, "clock_gettime failed!!!"));
    const TYMediaData record = Reported().at(0);
    EXPECT_EQ(record.time.sec, 0);
    EXPECT_EQ(record.time.nsec, 0);
}

TEST_F(CContentTest, SameUrlDuringAPlaybackChangesDrmTypeAndTextsOnly) {
    StartPlayback(3);
    std::string url = "film.mp4";
    CTYContentInfo info(&url, 9);
    info.SetTitle("New title");
    info.SetDuration(77);
    info.SetDrmType(TY_DRM_CLEARKEY);
    info.SetContentType(TY_CONTENT_LIVE);
    Collector().SetContentInfo(&info);
    Event(kFreeEvent);
    const TYMediaData record = Reported().at(1);
    EXPECT_STREQ(record.content.title, "New title");
    EXPECT_EQ(record.content.drmType, TY_DRM_CLEARKEY);
    EXPECT_EQ(record.content.duration, 0);
    EXPECT_EQ(record.content.contentType, static_cast<std::uint8_t>(TY_CONTENT_NOT_SET));
}

TEST_F(CContentTest, NewContentOutsideAPlaybackReplacesTheOld) {
    SetContent("old.mp4", "Old");
    Collector().SetDuration(5);
    SetContent("new.mp4", "New", 8);
    Event(TY_EVENT_START);
    const TYMediaData record = Reported().at(0);
    EXPECT_EQ(record.content.duration, 0);
    EXPECT_STREQ(record.content.title, "New");
    EXPECT_EQ(record.param1, 8);
    EXPECT_THAT(SentUrls(), ElementsAre("new.mp4"));
}

TEST_F(CContentTest, SettersReachTheRecord) {
    EXPECT_EQ(Collector().GetDrmType(), TY_DRM_NONE);
    EXPECT_EQ(Collector().GetContentType(), TY_CONTENT_VOD);
    SetContent();
    Collector().SetDuration(123);
    Collector().SetDrmType(static_cast<TY_DRM_TYPE>(300));
    Collector().SetContentType(TY_CONTENT_NOT_SET);
    Collector().SetServiceVersion("123456789012345");
    EXPECT_EQ(Collector().GetDrmType(), 300 - 256);
    EXPECT_EQ(Collector().GetContentType(), TY_CONTENT_NOT_SET);
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "[EXCUTE]"), 3U);
    Event(TY_EVENT_START);
    const TYMediaData record = Reported().at(0);
    EXPECT_EQ(record.content.duration, 123);
    EXPECT_STREQ(record.serviceVersion, "12345678901");
}

TEST_F(CContentTest, NullsAreLoggedAndChangeNothing) {
    SetFullContent();
    Collector().SendMediaError(kFreeError);
    PassNulls();
    Collector().SendMediaError(kFreeError);
    Event(TY_EVENT_START);
    Event(kFreeEvent);
    PassNulls();
    Event(kFreeEvent);
    const auto records = Reported();
    ASSERT_THAT(SentEvents(),
                ElementsAre(kFreeError, kFreeError, TY_EVENT_START, kFreeEvent, kFreeEvent));
    EXPECT_EQ(Image(records[1]), Image(records[0]));
    EXPECT_EQ(Image(records[4]), Image(records[3]));
    EXPECT_EQ(records[2].param1, 7);
    EXPECT_THAT(SentUrls(), Each("http://server/film.mp4"));
    for (const char* text :
         {"pServiceVersion is NULL.", "pContentInfo is NULL.", "pServiceID is NULL."}) {
        EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTag, text), 2U) << text;
    }
}

/// Builds the image of a record by offsets, apart from the library's own declaration of it.
class CRecordImageTest : public CContentTest {
  protected:
    CRecordImageTest() {
        m_Platform.connectionType = CONNECTION_TYPE_WIFI;
        m_Expected[0] = TY_PLAYER_NATIVE;
        m_Expected[1] = 2;
        char identifier[64];
        std::snprintf(identifier, sizeof(identifier), "%05u%010d%09d",
                      static_cast<unsigned>(gettid()), kNow, 5);
        Put(2, std::string(identifier).substr(0, 24));
        Put(27, "1.2.3");
        Put(39, "org.example.app");
        PutInt(104, 0x01020304);
        m_Expected[112] = TY_DRM_OTHER;
        m_Expected[113] = TY_CONTENT_LIVE;
        Put(114, "channel");
        Put(370, "title");
        Put(626, "genre");
        Put(694, "custom");
    }

    void Put(std::size_t offset, const std::string& bytes) {
        m_Expected.replace(offset, bytes.size(), bytes);
    }
    void PutInt(std::size_t offset, std::int32_t value) {
        std::memcpy(m_Expected.data() + offset, &value, sizeof(value));
    }
    void PutEvent(const Report& report) {
        m_Expected[92] = static_cast<char>(report.event);
        PutInt(96, report.param1);
        PutInt(100, report.param2);
        PutInt(4792, kNow + 2);
        PutInt(4796, 123456789);
    }

    std::string m_Expected = std::string(4800, '\0');
};

TEST_F(CRecordImageTest, OfAnEventAndOfAnExecuteHasEveryByteInItsPlace) {
    SetFullContent();
    Event(TY_EVENT_START);
    m_Clock.SetRealTime(kNow + 2, 123456789);
    Event(250, -2, 0x0A0B0C0D);
    Collector().Execute(255, 0x0A0B0C0D, "x");
    const auto records = Reported();
    PutEvent({250, -2, 0x0A0B0C0D});
    EXPECT_EQ(Image(records.at(1)), m_Expected);
    PutEvent({255, 0x0A0B0C0D, 0});
    Put(694, std::string("x\0\0\0\0\0", 6));
    EXPECT_EQ(Image(records.at(2)), m_Expected);
    EXPECT_THAT(SentUrls(), Each("http://server/film.mp4"));
}

}  // namespace
