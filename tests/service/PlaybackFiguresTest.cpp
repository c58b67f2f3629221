// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPlaybackFigures.h"

#include "Test.h"
#include "TimelineSteps.h"

using testing::ElementsAre;

namespace {

constexpr int kFatal = 240;

TYPlaybackFigures Of(const TimelineSteps& steps, const TYPlaybackFacts& facts = {}) {
    const auto records = RecordsOf(steps);
    return FiguresOf(records, AnalyzePlayback(records), facts);
}

TEST(PlaybackFigures, NameEveryEnd) {
    const TimelineStep stop{9000, TY_EVENT_STOP};
    const auto stopFor = [](int reason) { return TimelineStep{9000, TY_EVENT_STOP, 0, reason}; };
    const struct {
        TimelineSteps steps;
        const char* pEnd;
    } cases[] = {
        {Started({}), "lost"},
        {Started({{2000, kFatal}}), "lost"},
        {Started({stop}), "stopped"},
        {Started({stopFor(TY_STOP_USER)}), "stopped"},
        {Started({stopFor(TY_STOP_FATAL_ERROR)}), "playback failure"},
        {Started({stopFor(99)}), "stopped"},
        {{{0, TY_EVENT_START}, stop}, "exit before start"},
        {{{0, TY_EVENT_START}, stopFor(TY_STOP_FATAL_ERROR)}, "start failure"},
        {{{0, TY_EVENT_START}, {2000, kFatal}, stop}, "start failure"},
        {{{0, TY_EVENT_START}, {2000, kFatal}, stopFor(TY_STOP_USER)}, "exit before start"},
        {{{0, TY_EVENT_START}, {2000, TY_ERROR_DUPLICATED_START}, stop}, "exit before start"},
        {{stop}, "stopped"},
    };
    for (const auto& one : cases) {
        EXPECT_STREQ(NameOf(Of(one.steps).end), one.pEnd);
    }
    EXPECT_STREQ(NameOf(Of(Started({}), {.isLive = true}).end), "playing");
    EXPECT_STREQ(NameOf(Of(Started({stop}), {.isLive = true}).end), "stopped");
}

// Without a told reason.
TEST(PlaybackFigures, CallAnErrorFatalIfNoPictureFollows) {
    const struct {
        const char* pName;
        TimelineSteps after;
        bool isFatal;
    } cases[] = {
        {"nothing", {{20'000, TY_EVENT_STOP, 10'000}}, true},
        {"a seek and buffering without a picture after them",
         {{11'500, TY_EVENT_SEEK}, {12'000, TY_EVENT_BUFFERING_START}, {20'000, TY_EVENT_STOP}},
         true},
        {"the end of buffering",
         {{12'000, TY_EVENT_BUFFERING_END}, {20'000, TY_EVENT_STOP}},
         false},
        {"a position", {{12'000, TY_EVENT_PLAYBACK_TIME}, {20'000, TY_EVENT_STOP}}, false},
        {"a heartbeat",
         {{181'000, TY_EVENT_PLAYING_TIME, 180'000, 180'000}, {190'000, TY_EVENT_STOP}},
         false},
        {"a little more media, which was buffered", {{20'000, TY_EVENT_STOP, 19'000}}, true},
        {"more media", {{21'000, TY_EVENT_STOP, 19'001}}, false},
    };
    for (const auto& one : cases) {
        TimelineSteps steps = Started({{11'000, kFatal}});
        steps.insert(steps.end(), one.after.begin(), one.after.end());
        EXPECT_EQ(Of(steps).end == TYPlaybackEnd::PLAYBACK_FAILURE, one.isFatal) << one.pName;
    }
}

TEST(PlaybackFigures, TellStallsApartByCauseAndJoinTheirParts) {
    const TYPlaybackFigures figures = Of(Started({{2000, TY_EVENT_BUFFERING_START},
                                                  {2100, TY_EVENT_PAUSE},
                                                  {2900, TY_EVENT_RESUME},
                                                  {3000, TY_EVENT_BUFFERING_END},
                                                  {4000, TY_EVENT_SEEK},
                                                  {4100, TY_EVENT_BUFFERING_START},
                                                  {4300, TY_EVENT_SEEK_COMPLETE},
                                                  {4500, TY_EVENT_BUFFERING_END},
                                                  {5000, TY_EVENT_BUFFERING_START},
                                                  {5030, TY_EVENT_BUFFERING_END, 0, 4},
                                                  {6000, TY_EVENT_BUFFERING_START},
                                                  {6010, TY_EVENT_BUFFERING_END, 0, 1},
                                                  {7000, TY_EVENT_BUFFERING_START},
                                                  {7500, TY_EVENT_BUFFERING_START},
                                                  {7600, TY_EVENT_BUFFERING_END},
                                                  {8000, TY_EVENT_SEEK},
                                                  {8500, TY_EVENT_STOP}}));
    EXPECT_THAT(figures.stalls, ElementsAre(200, 10, 100));
    EXPECT_THAT(figures.seekStalls, ElementsAre(400));
    EXPECT_THAT(figures.switchStalls, ElementsAre(30));
    EXPECT_THAT(figures.seeks, ElementsAre(500));
    EXPECT_EQ(figures.paused, 800);
    EXPECT_EQ(figures.playing, 1000 + 1000 + 500 + 970 + 990 + 400);
}

// The last record tells that a stall began, and no record how long it took.
TEST(PlaybackFigures, DoNotMeasureAStallThatBeginsWithTheLastRecord) {
    const TimelineStep end{2500, TY_EVENT_BUFFERING_END};
    const TimelineSteps steps = {{2000, TY_EVENT_BUFFERING_START}, end};
    const TimelineStep again{4000, TY_EVENT_BUFFERING_START};
    const struct {
        TimelineSteps last;
        std::vector<std::int64_t> stalls;
        std::vector<std::int64_t> measured;
    } cases[] = {
        {{}, {500}, {500}},
        {{again}, {500, 0}, {500}},
        {{again, {4000, 100}}, {500, 0}, {500}},
        {{again, {4700, 100}}, {500, 700}, {500, 700}},
        {{again, {4000, TY_EVENT_BUFFERING_END}}, {500, 0}, {500, 0}},
        {{again, {4000, TY_EVENT_STOP}}, {500, 0}, {500, 0}},
        {{{3000, TY_EVENT_SEEK}, again}, {500}, {500}},
    };
    for (const auto& one : cases) {
        TimelineSteps all = Started(steps);
        all.insert(all.end(), one.last.begin(), one.last.end());
        const TYPlaybackFigures figures = Of(all);
        EXPECT_EQ(figures.stalls, one.stalls);
        EXPECT_THAT(MeasuredStalls(figures), testing::ElementsAreArray(one.measured));
    }
}

TEST(PlaybackFigures, KnowCompletionFromReasonOrPositions) {
    const struct {
        std::int64_t duration;
        bool hasEnd;
        TimelineSteps end;
        std::optional<bool> completed;
    } cases[] = {
        {0, true, {{101'000, TY_EVENT_STOP, 100'000}}, {}},
        {0, true, {{101'000, TY_EVENT_STOP, 100'000, TY_STOP_END_OF_CONTENT}}, true},
        {0, true, {{101'000, TY_EVENT_STOP, 100'000, TY_STOP_USER}}, false},
        {0, false, {{101'000, TY_EVENT_STOP, 100'000, TY_STOP_USER}}, {}},
        {100'000, true, {{96'000, TY_EVENT_STOP, 95'000}}, true},
        {100'000, true, {{96'000, TY_EVENT_STOP, 94'999}}, false},
        {100'000, true, {{96'000, TY_EVENT_BUFFERING_START, 94'999}}, {}},
        {100'000, true, {{96'000, TY_EVENT_BUFFERING_START, 95'000}}, true},
        {100'000, true, {{99'000, TY_EVENT_STOP, 10, TY_STOP_END_OF_CONTENT}}, true},
        {100'000, false, {{98'000, TY_EVENT_STOP, 97'000, TY_STOP_USER}}, {}},
        {100'000, false, {{98'000, TY_EVENT_STOP, 97'000, TY_STOP_END_OF_CONTENT}}, true},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(Of(Started(one.end), {.duration = one.duration, .hasEnd = one.hasEnd}).completed,
                  one.completed);
    }
}

TEST(PlaybackFigures, WeighRenditionsByTheirPlayingTime) {
    const TYPlaybackFigures figures = Of(Started({{1000, TY_EVENT_RENDITION, 1000},
                                                  {2000, TY_EVENT_PAUSE},
                                                  {6000, TY_EVENT_RESUME},
                                                  {7000, TY_EVENT_RENDITION, 1000},
                                                  {8000, TY_EVENT_RENDITION, 5000},
                                                  {8500, TY_EVENT_RENDITION, 0},
                                                  {9000, TY_EVENT_STOP}}));
    EXPECT_EQ(figures.renditionTime, 4000);
    EXPECT_EQ(figures.averageKbps, 2000);
    EXPECT_EQ(figures.switches, 1);
    const TYPlaybackFigures without = Of(Started({{2000, TY_EVENT_STOP}}));
    EXPECT_EQ(without.averageKbps, std::nullopt);
    EXPECT_EQ(without.switches, std::nullopt);
}

TEST(PlaybackFigures, TakeFramesSignalAndErrorsFromRecords) {
    const TimelineSteps steps = Started({{2000, TY_EVENT_BUFFERING_START, 0, -200},
                                         {3000, TY_EVENT_BUFFERING_END},
                                         {4000, TY_EVENT_BUFFERING_START, 0, -61},
                                         {5000, TY_EVENT_DROPPED_FRAMES, 3, 400},
                                         {5500, TY_ERROR_PLAYBACK_TIME_JUMP},
                                         {5600, 200},
                                         {5700, 206},
                                         {6000, TY_EVENT_DROPPED_FRAMES, 7, 900},
                                         {7000, TY_EVENT_STOP},
                                         {7000, kFatal}});
    const TYPlaybackFigures figures = Of(steps, {.onWifi = true});
    EXPECT_EQ(figures.framesDropped, 7);
    EXPECT_EQ(figures.framesRendered, 900);
    EXPECT_EQ(figures.signal, -61);
    EXPECT_EQ(figures.errors, 2);
    EXPECT_EQ(Of(steps).signal, std::nullopt);
    EXPECT_EQ(Of(Started({})).framesDropped, std::nullopt);
}

}  // namespace
