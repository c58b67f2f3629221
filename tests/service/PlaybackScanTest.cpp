// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPlaybackScan.h"

#include "StoreFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

class PlaybackScan : public CStoreTest {
  protected:
    static TYMediaData Record(const std::string& playback, int event, std::int32_t second,
                              const char* pApplication = "org.example.app") {
        TYMediaData record = MakeRecord(event, playback);
        record.time.sec = second;
        CopyText(record.serviceID, pApplication);
        return record;
    }
    /// @return each playback's identifier and its events
    std::vector<std::string> Scan(const TYPlaybackSelection& selection = {}) {
        std::vector<std::string> found;
        ScanPlaybacks(m_Store.Database(), selection, 0, [&](const TYAnalyzedPlayback& analyzed) {
            std::string text = analyzed.playback.playbackId + ":";
            for (const TYTimelineRecord& record : analyzed.records) {
                text += " " + std::to_string(record.event);
            }
            found.push_back(std::move(text));
        });
        return found;
    }

    CTYStore m_Store{m_File};
};

TEST_F(PlaybackScan, CollectsRecordsThatArriveInTurns) {
    EXPECT_THAT(Scan(), IsEmpty());
    m_Store.Add(MakeBatch({Record("a", TY_EVENT_START, 100), Record("b", TY_EVENT_START, 100),
                           Record("", 240, 100), Record("a", TY_EVENT_RENDER_START, 101)}));
    m_Store.Add(MakeBatch({Record("b", TY_EVENT_PAUSE, 102), Record("a", TY_EVENT_STOP, 103),
                           Record("a", TY_EVENT_PLAYING_TIME, 103)}));
    EXPECT_THAT(Scan(), UnorderedElementsAre("a: 1 6 2", "b: 1 3"));
    const auto records = ReadRecordsOf(m_Store.Database(), 1);
    ASSERT_EQ(records.size(), 4U);
    EXPECT_EQ(records.back().event, TY_EVENT_PLAYING_TIME);
    EXPECT_EQ(records.back().time, 103'000);
}

TEST_F(PlaybackScan, TellsAgesOfAnyArrival) {
    constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(AgeOf(7, 9), 2);
    EXPECT_EQ(AgeOf(9, 7), 0);
    EXPECT_EQ(AgeOf(kLeast, kMost), kMost);
    EXPECT_FALSE(IsRecent(kLeast, 0));
    EXPECT_FALSE(IsRecent(kMost, kLeast));
    EXPECT_FALSE(IsRecent(0, kLostAfter));
    EXPECT_TRUE(IsRecent(1, kLostAfter));
    EXPECT_FALSE(IsRecent(kLostAfter, 0));
    EXPECT_TRUE(IsRecent(kLostAfter - 1, 0));
}

TEST_F(PlaybackScan, ReadsWhatIsSelected) {
    for (const std::int32_t second : {100, 200, 300}) {
        const std::string name = std::to_string(second);
        m_Store.Add(MakeBatch({Record(name, TY_EVENT_START, second, ("org." + name).c_str())}));
    }
    m_Store.Add(MakeBatch({Record("300", TY_EVENT_STOP, 301, "org.300"),
                           Record("100", TY_EVENT_STOP, 301, "org.100")}));
    const struct {
        TYPlaybackSelection selection;
        std::vector<std::string> found;
    } cases[] = {
        {{200 * kSecond, INT64_MAX, ""}, {"200: 1", "300: 1 2"}},
        {{INT64_MIN, 200 * kSecond, ""}, {"100: 1 2"}},
        {{101 * kSecond, 201 * kSecond, ""}, {"200: 1"}},
        {{301 * kSecond, INT64_MAX, ""}, {}},
        {{INT64_MIN, INT64_MAX, "org.100"}, {"100: 1 2"}},
        {{INT64_MIN, INT64_MAX, "org"}, {}},
    };
    for (const auto& one : cases) {
        EXPECT_THAT(Scan(one.selection), testing::UnorderedElementsAreArray(one.found));
    }
}

TEST_F(PlaybackScan, DescribesPlaybacks) {
    TYMediaData record = Record("a", TY_EVENT_BUFFERING_START, 100);
    record.playerID = static_cast<std::int8_t>(200);
    record.networkType = 255;
    record.content.contentType = TY_CONTENT_LIVE;
    record.content.drmType = 255;
    record.content.duration = 77;
    CopyText(record.content.title, "Night Train");
    CopyText(record.serviceVersion, "2.4.1");
    m_Store.Add(MakeBatch({record}, 5 * kSecond));
    ScanPlaybacks(m_Store.Database(), {}, 5 * kSecond + kLostAfter, [](const auto& analyzed) {
        const TYStoredPlayback& playback = analyzed.playback;
        EXPECT_EQ(playback.begin, 5 * kSecond);
        EXPECT_EQ(playback.version + playback.title + playback.url, "2.4.1Night Trainfilm.mp4");
        EXPECT_EQ(playback.player, 200);
        EXPECT_EQ(playback.network, TY_NETWORK_UNKNOWN);
        EXPECT_EQ(playback.contentType, TY_CONTENT_LIVE);
        EXPECT_EQ(playback.drm, TY_DRM_NOT_SET);
        EXPECT_EQ(playback.duration, 77);
        EXPECT_EQ(analyzed.figures.end, TYPlaybackEnd::LOST);
    });
    std::vector<TYPlaybackEnd> ends;
    ScanPlaybacks(m_Store.Database(), {}, 5 * kSecond + kLostAfter - 1,
                  [&](const auto& analyzed) { ends.push_back(analyzed.figures.end); });
    EXPECT_THAT(ends, ElementsAre(TYPlaybackEnd::PLAYING));
}

}  // namespace
