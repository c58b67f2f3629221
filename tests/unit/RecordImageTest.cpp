// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

using testing::ElementsAre;

namespace {

class CRecordImageTest : public CCollectorTest {
  protected:
    CRecordImageTest() { m_Platform.connectionType = CONNECTION_TYPE_WIFI; }

    void PutText(std::size_t offset, const std::string& text) {
        std::copy(text.begin(), text.end(), m_Expected.begin() + static_cast<long>(offset));
    }

    void PutInt(std::size_t offset, std::int32_t value) {
        std::memcpy(m_Expected.data() + offset, &value, sizeof(value));
    }

    void ExpectIdentity() {
        m_Expected[0] = TY_PLAYER_NATIVE;
        m_Expected[1] = 2;
        char identifier[64];
        std::snprintf(identifier, sizeof(identifier), "%05u%010d%09d",
                      static_cast<unsigned>(gettid()), 1000000, 5);
        PutText(2, std::string(identifier).substr(0, 24));
        PutText(27, "1.2.3");
        PutText(39, "org.example.app");
    }

    void ExpectContent() {
        PutInt(104, 0x01020304);
        m_Expected[112] = TY_DRM_OTHER;
        m_Expected[113] = TY_CONTENT_LIVE;
        PutText(114, "channel");
        PutText(370, "title");
        PutText(626, "genre");
        PutText(694, "custom");
    }

    /// @return the image of the second record sent
    std::vector<char> SecondImage() {
        m_pCollector.reset();
        std::vector<std::vector<char>> images;
        for (const CFakeBus::Call& call : m_Bus.Calls("SendData")) {
            for (const CFakeBus::Argument& argument : call.arguments) {
                if (const auto* pImage = std::get_if<std::vector<char>>(&argument)) {
                    images.push_back(*pImage);
                }
            }
        }
        return images.at(1);
    }

    std::vector<char> m_Expected = std::vector<char>(4800, '\0');
};

TEST_F(CRecordImageTest, EveryByteOfAnEventStandsInItsPlace) {
    SetFullContent();
    Event(TY_EVENT_START);
    m_Clock.SetRealTime(1000002, 123456789);
    Event(250, -2, 0x0A0B0C0D);
    ExpectIdentity();
    m_Expected[92] = static_cast<char>(250);
    PutInt(96, -2);
    PutInt(100, 0x0A0B0C0D);
    ExpectContent();
    PutInt(4792, 1000002);
    PutInt(4796, 123456789);
    EXPECT_EQ(SecondImage(), m_Expected);
    EXPECT_THAT(SentUrls(), ElementsAre("http://server/film.mp4", "http://server/film.mp4"));
}

TEST_F(CRecordImageTest, EveryByteOfAnEventThatDerivesStandsInItsPlaceToo) {
    SetFullContent();
    Event(TY_EVENT_START);
    Event(TY_EVENT_BUFFERING_END, 8, 9);
    ExpectIdentity();
    m_Expected[92] = TY_EVENT_BUFFERING_END;
    PutInt(96, 8);
    PutInt(100, 9);
    ExpectContent();
    PutInt(4792, 1000000);
    PutInt(4796, 5);
    EXPECT_EQ(SecondImage(), m_Expected);
}

TEST_F(CRecordImageTest, EveryByteOfAnExecuteStandsInItsPlace) {
    SetFullContent();
    Event(TY_EVENT_START);
    Collector().Execute(255, 0x0A0B0C0D, std::string(5000, 'x'));
    ExpectIdentity();
    m_Expected[92] = static_cast<char>(255);
    PutInt(96, 0x0A0B0C0D);
    ExpectContent();
    PutText(694, std::string(4095, 'x'));
    PutInt(4792, 1000000);
    PutInt(4796, 5);
    EXPECT_EQ(SecondImage(), m_Expected);
}

class CPathTest : public CCollectorTest {
  protected:
    std::string Path(std::string url) {
        Collector().GetPathFromUrl(&url);
        return url;
    }
};

TEST_F(CPathTest, FirstSeparatorOfEachKindCounts) {
    EXPECT_EQ(Path("http://server/a?b?c"), "a");
    EXPECT_EQ(Path("http://server/a?b/c"), "a");
    EXPECT_EQ(Path("http://server/a?u=http://other/b"), "a");
    EXPECT_EQ(Path("http://server//a"), "/a");
    EXPECT_EQ(Path("file:///media/a.mp4"), "media/a.mp4");
}

TEST_F(CPathTest, SchemeIsFoundBehindAQueryToo) {
    EXPECT_EQ(Path("a?u=http://other/b"), "b");
    EXPECT_EQ(Path("a?u=http://other"), "://other");
}

TEST_F(CPathTest, BareSeparatorsStayOrVanish) {
    EXPECT_EQ(Path("://"), "://");
    EXPECT_EQ(Path("://?"), "://");
    EXPECT_EQ(Path(":///"), "");
    EXPECT_EQ(Path("http://server/?x"), "");
    EXPECT_EQ(Path("http:/server/a"), "http:/server/a");
}

TEST_F(CPathTest, UntitledContentMayChangeItsQueryDuringAPlayback) {
    SetContent("http://server/a.ts?token=1", "");
    Event(TY_EVENT_START);
    SetContent("http://server/a.ts?token=2", "");
    Event(99);
    m_pCollector.reset();
    EXPECT_THAT(SentUrls(), ElementsAre("a.ts", "a.ts"));
}

}  // namespace
