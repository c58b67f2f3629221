// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "KeyFigures.h"

#include "TableTest.h"

namespace {

constexpr std::int64_t kHour = 3'600'000;

TYKeyFigures Sum(const std::vector<TYPlaybackFigures>& playbacks) {
    CKeyFigures figures;
    for (const TYPlaybackFigures& playback : playbacks) {
        figures.Add(playback);
    }
    return figures.Get();
}

// In which counts a playback of each end appears.
struct Counts {
    TYPlaybackEnd end;
    bool started;
    TYShare startFailures;
    TYShare exitsBeforeStart;
    TYShare playbackFailures;
    TYShare lost;
    TYShare completed;
};
constexpr TYShare kNo{0, 1};
constexpr TYShare kYes{1, 1};
constexpr TYShare kNotAsked{0, 0};
using enum TYPlaybackEnd;
constexpr Named<Counts> kCounts[] = {
    {"Waiting", {PLAYING, false, kNotAsked, kNotAsked, kNotAsked, kNo, kNotAsked}},
    {"Playing", {PLAYING, true, kNo, kNo, kNo, kNo, kNotAsked}},
    {"LostBeforeStart", {LOST, false, kNotAsked, kNotAsked, kNotAsked, kYes, kNotAsked}},
    {"Lost", {LOST, true, kNo, kNo, kNo, kYes, kNotAsked}},
    {"Stopped", {STOPPED, true, kNo, kNo, kNo, kNo, kYes}},
    {"Exit", {EXIT_BEFORE_START, false, kNo, kYes, kNotAsked, kNo, kNotAsked}},
    {"StartFailure", {START_FAILURE, false, kYes, kNo, kNotAsked, kNo, kNotAsked}},
    {"PlaybackFailure", {PLAYBACK_FAILURE, true, kNo, kNo, kYes, kNo, kYes}},
};

class Ends : public CTableTest<testing::Test, Counts> {};

TEST_P(Ends, CountInTheirOwnClassOnly) {
    TYPlaybackFigures playback;
    playback.end = Case().end;
    playback.started = Case().started;
    playback.completed = true;
    const TYKeyFigures sum = Sum({playback});
    EXPECT_EQ(sum.playbacks, 1);
    EXPECT_EQ(sum.started, Case().started ? 1 : 0);
    EXPECT_EQ(sum.startFailures, Case().startFailures);
    EXPECT_EQ(sum.exitsBeforeStart, Case().exitsBeforeStart);
    EXPECT_EQ(sum.playbackFailures, Case().playbackFailures);
    EXPECT_EQ(sum.lost, Case().lost);
    EXPECT_EQ(sum.completed, Case().completed);
}

INSTANTIATE_TEST_SUITE_P(Table, Ends, testing::ValuesIn(kCounts), kByName);

TEST(KeyFigures, HaveNoRatiosWithoutPlaying) {
    const TYKeyFigures none = Sum({});
    EXPECT_FALSE(none.StalledRatio());
    EXPECT_FALSE(none.ConnectionStalledRatio());
    EXPECT_FALSE(none.StallsPerHour());
    TYPlaybackFigures stuck;
    stuck.stalls = {500};
    EXPECT_EQ(Sum({stuck}).ConnectionStalledRatio(), 1);
    EXPECT_FALSE(Sum({stuck}).StallsPerHour());
}

TEST(KeyFigures, TellStallsOfTheConnectionFromOthers) {
    TYPlaybackFigures playback;
    playback.playing = 2 * kHour;
    playback.stalls = {kHour / 2, kHour / 2};
    playback.seekStalls = {kHour / 2};
    playback.switchStalls = {kHour / 4, kHour / 4};
    const TYKeyFigures sum = Sum({playback});
    EXPECT_EQ(sum.ConnectionStalledRatio(), 1.0 / 3);
    EXPECT_EQ(sum.StalledRatio(), 0.5);
    EXPECT_EQ(sum.StallsPerHour(), 1);
    EXPECT_EQ(sum.stallLength, (TYPercentiles{2, kHour / 2, kHour / 2, kHour / 2}));
}

TEST(KeyFigures, WeighBitRatesByTheTimeTheyWereSeen) {
    TYPlaybackFigures low;
    low.averageKbps = 3000;
    low.renditionTime = 1000;
    low.switches = 0;
    TYPlaybackFigures high = low;
    high.averageKbps = 6000;
    high.renditionTime = 3000;
    high.switches = 2;
    const TYKeyFigures sum = Sum({low, {}, high});
    EXPECT_EQ(sum.averageKbps, 5250);
    EXPECT_EQ(sum.switches, 2);
}

TEST(KeyFigures, AreNothingWhereNoPlaybackTells) {
    const TYKeyFigures silent = Sum({{}, {}});
    EXPECT_FALSE(silent.watchedMedia);
    EXPECT_FALSE(silent.averageKbps);
    EXPECT_FALSE(silent.switches);
    EXPECT_FALSE(silent.framesDropped);
    EXPECT_FALSE(silent.framesRendered);
    EXPECT_EQ(silent.completed.of, 0);
    EXPECT_EQ(silent.startUp, TYPercentiles());
    TYPlaybackFigures telling;
    telling.framesDropped = 0;
    telling.framesRendered = 1500;
    EXPECT_EQ(Sum({{}, telling}).framesDropped, 0);
    EXPECT_EQ(Sum({{}, telling}).framesRendered, 1500);
}

}  // namespace
