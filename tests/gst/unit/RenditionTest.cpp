// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "MapperFixture.h"

#include <gmock/gmock.h>

#include <string>

namespace {

using testing::ElementsAre;

constexpr TYPictureSize kSmall{320, 180};
constexpr TYPictureSize kLarge{640, 360};

class CRenditionTest : public CMapperTest {
  protected:
    /// @return the report of a rendition, without its time
    static std::string Rendition(int kbps, const TYPictureSize& size) {
        return "RENDITION(" + std::to_string(kbps) + ", " +
               std::to_string(TYFrameSize(size.width, size.height)) + ")";
    }
    /// Adds a playback of an adaptive stream that begins with the small picture.
    void StartAdaptive() {
        At(0, TYSourceReady{"http://example.org/master.m3u8"});
        At(100, TYVariant{0});
        At(900, kSmall);
        Play(1000);
    }
    /// @return the last `count` reports until this time
    Texts Last(int time, std::size_t count) {
        RunUntil(time);
        const Texts all = Reported();
        return {all.end() - static_cast<std::ptrdiff_t>(std::min(count, all.size())), all.end()};
    }
};

TEST_F(CRenditionTest, TheFirstRenditionIsReportedWithTheFirstFrame) {
    StartAdaptive();
    EXPECT_THAT(Last(2000, 2), ElementsAre("1000 RENDER_START", "1000 " + Rendition(0, kSmall)));
}

TEST_F(CRenditionTest, EachNewSizeTakesTheNextAnnouncedBitRate) {
    StartAdaptive();
    At(1500, TYVariant{1390});
    At(3000, kLarge);
    At(4000, TYVariant{400});
    At(8000, TYVariant{1390});
    At(9000, kSmall);
    At(11'000, kLarge);
    EXPECT_THAT(Last(12'000, 3),
                ElementsAre("3000 " + Rendition(1390, kLarge), "9000 " + Rendition(400, kSmall),
                            "11000 " + Rendition(1390, kLarge)));
}

TEST_F(CRenditionTest, AVariantThatWasNeverShownIsLeftOut) {
    StartAdaptive();
    At(1500, TYVariant{1390});
    At(3000, kLarge);
    At(4000, TYVariant{400});
    At(5000, kSmall);
    At(6000, TYVariant{800});
    At(7000, TYVariant{1390});
    At(9000, kLarge);
    Samples(9000, 30'000, 0);
    EXPECT_THAT(Last(29'000, 1), ElementsAre("9000 " + Rendition(1390, kLarge)));
}

TEST_F(CRenditionTest, AVariantOfTheSameSizeCountsAsSeenAfter15Seconds) {
    StartAdaptive();
    At(2000, TYVariant{800});
    Samples(1000, 18'000, 0);
    EXPECT_THAT(Last(17'500, 1), ElementsAre("17000 " + Rendition(800, kSmall)));
}

TEST_F(CRenditionTest, ASeekDropsVariantsThatWereBuffered) {
    StartAdaptive();
    At(2000, TYVariant{800});
    At(2500, TYVariant{1390});
    Seek(3000, 9000, 7);
    At(3100, kLarge);
    EXPECT_THAT(Last(4000, 1), ElementsAre("3100 " + Rendition(1390, kLarge)));
}

TEST_F(CRenditionTest, WithoutVariantsTheBitRateIsThatOfTheTags) {
    StartPlayback();
    At(900, kLarge);
    At(1100, TYTags{"", "", 69, false});
    At(1200, TYTags{"", "", 600, true});
    At(1300, TYTags{"", "", 610, true});
    EXPECT_THAT(Last(3000, 2),
                ElementsAre("1000 " + Rendition(0, kLarge), "1200 " + Rendition(669, kLarge)));
}

TEST_F(CRenditionTest, TheBitRateOfThePictureWaitsASecondForThatOfTheSound) {
    StartPlayback();
    At(900, kLarge);
    At(1000, TYTags{"", "", 600, true});
    Samples(1000, 3000, 0);
    EXPECT_THAT(Last(2900, 1), ElementsAre("2000 " + Rendition(600, kLarge)));
}

TEST_F(CRenditionTest, WhatCameBeforeTheStartBelongsToThePlayback) {
    using enum TYPipelineState;
    At(0, TYTags{"Old", "", 900, true});
    State(10, NULL_STATE, READY);
    At(100, TYTags{"Night Train", "", 400, true});
    At(101, TYTags{"", "", 100, false});
    At(102, kSmall);
    At(200, TYSourceReady{"http://example.org/film.mp4"});
    Play(1000);
    EXPECT_THAT(Last(2000, 1), ElementsAre("1000 " + Rendition(500, kSmall)));
    EXPECT_EQ(m_Collector.m_Contents.back(), "http://example.org/film.mp4 'Night Train' 0");
}

TEST_F(CRenditionTest, AGaplessContentOfTheSameSizeHasItsOwnRendition) {
    StartAdaptive();
    At(2000, TYAboutToFinish{});
    At(2001, TYSourceReady{"http://example.org/next.mp4"});
    At(3000, TYStreamStart{});
    At(3100, TYTags{"", "", 400, true});
    At(3101, TYTags{"", "", 100, false});
    EXPECT_THAT(Last(4000, 1), ElementsAre("3101 " + Rendition(500, kSmall)));
}

}  // namespace
