// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TimelineSteps.h"

#include "PlaybackMakers.h"
#include "Test.h"

namespace {

constexpr int kDay = 24 * 3600 * 1000;
constexpr TimelineStep Heartbeat(std::int64_t ms) {
    return {ms, TY_EVENT_PLAYING_TIME, 180'000, 180'000};
}

struct Case {
    const char* pName;
    TimelineSteps steps;
    const char* pPhases;  ///< kinds, causes and lengths; of a seek also whether it is complete
};

std::string TextOf(const TYTimeline& timeline) {
    constexpr std::array kKinds = {"start-up", "playing", "paused",
                                   "seeking",  "stalled", "unknown"};
    constexpr std::array kCauses = {"", " start", " seek", " connection", " switch"};
    std::ostringstream text;
    for (const TYPhase& phase : timeline.phases) {
        text << kKinds.at(static_cast<std::size_t>(phase.kind)) << kCauses.at(phase.cause) << " "
             << phase.length << ", ";
    }
    for (const TYSeek& seek : timeline.seeks) {
        text << (seek.complete ? "seek " : "open seek ") << seek.length << ", ";
    }
    return text.str().substr(0, text.str().empty() ? 0 : text.str().size() - 2);
}

void ExpectPhases(const std::vector<Case>& cases) {
    for (const Case& one : cases) {
        EXPECT_EQ(TextOf(AnalyzePlayback(RecordsOf(one.steps))), one.pPhases) << one.pName;
    }
}

TEST(Timeline, BuffersBeforeTheFirstFrameDuringSeeksAndOtherwise) {
    ExpectPhases({
        {"no record", {}, ""},
        {"only a STOP", {{5, TY_EVENT_STOP}}, ""},
        {"before the first frame",
         {{0, TY_EVENT_START},
          {100, TY_EVENT_BUFFERING_START, -1},
          {900, TY_EVENT_BUFFERING_END},
          {1000, TY_EVENT_RENDER_START},
          {4000, TY_EVENT_STOP}},
         "start-up 1000, playing 3000"},
        {"until after the first frame",
         {{0, TY_EVENT_START},
          {100, TY_EVENT_BUFFERING_START, -1},
          {1000, TY_EVENT_RENDER_START},
          {1500, TY_EVENT_BUFFERING_END},
          {4000, TY_EVENT_STOP}},
         "start-up 1000, stalled start 500, playing 2500"},
        {"during playback",
         Started({{3000, TY_EVENT_BUFFERING_START},
                  {3500, TY_EVENT_BUFFERING_END},
                  {4000, TY_EVENT_STOP}}),
         "start-up 1000, playing 2000, stalled connection 500, playing 500"},
        {"until STOP", Started({{3000, TY_EVENT_BUFFERING_START}, {3500, TY_EVENT_STOP}}),
         "start-up 1000, playing 2000, stalled connection 500"},
        {"before the seek that interrupts it",
         Started({{3000, TY_EVENT_BUFFERING_START},
                  {3400, TY_EVENT_SEEK},
                  {3500, TY_EVENT_SEEK_COMPLETE},
                  {3700, TY_EVENT_BUFFERING_END},
                  {4000, TY_EVENT_STOP}}),
         "start-up 1000, playing 2000, stalled connection 700, playing 300, seek 300"},
    });
}

// Buffering that begins after the first frame is not part of the start.
TEST(Timeline, KeepsTheToldCauseUnlessItIsTheStart) {
    const struct {
        int told;
        const char* pStall;
    } cases[] = {{1, "stalled connection"}, {2, "stalled seek"},       {3, "stalled connection"},
                 {4, "stalled switch"},     {0, "stalled connection"}, {5, "stalled connection"},
                 {-3, "stalled connection"}};
    for (const auto& one : cases) {
        EXPECT_THAT(
            TextOf(AnalyzePlayback(RecordsOf(Started(
                {{3000, TY_EVENT_BUFFERING_START}, {3500, TY_EVENT_BUFFERING_END, 7, one.told}})))),
            testing::HasSubstr(one.pStall));
    }
}

TEST(Timeline, SeeksUntilThePictureIsBack) {
    ExpectPhases({
        {"at the first position",
         Started({{3000, TY_EVENT_SEEK},
                  {3200, TY_EVENT_SEEK_COMPLETE},
                  {3900, TY_EVENT_PLAYBACK_TIME},
                  {4000, TY_EVENT_STOP}}),
         "start-up 1000, playing 2000, seeking 900, playing 100, seek 900"},
        {"at the end of buffering, from within the seek",
         Started({{3000, TY_EVENT_SEEK},
                  {3100, TY_EVENT_BUFFERING_START},
                  {3200, TY_EVENT_SEEK_COMPLETE},
                  {3300, TY_ERROR_PLAYBACK_TIME_JUMP},
                  {3600, TY_EVENT_BUFFERING_END},
                  {4000, TY_EVENT_STOP}}),
         "start-up 1000, playing 2000, seeking 100, stalled seek 500, playing 400, seek 600"},
        {"not at a position before SEEK_COMPLETE",
         Started({{3000, TY_EVENT_SEEK},
                  {3100, TY_ERROR_PLAYBACK_TIME_JUMP},
                  {3200, TY_EVENT_SEEK_COMPLETE},
                  {3300, TY_EVENT_RENDER_START}}),
         "start-up 1000, playing 2000, seeking 300, playing 0, seek 300"},
        {"several SEEKs are one seek",
         Started({{3000, TY_EVENT_SEEK},
                  {3100, TY_EVENT_SEEK_COMPLETE},
                  {3200, TY_EVENT_SEEK},
                  {3300, TY_EVENT_SEEK},
                  {3400, TY_EVENT_SEEK_COMPLETE},
                  {3500, TY_EVENT_PLAYBACK_TIME},
                  {4000, TY_EVENT_STOP}}),
         "start-up 1000, playing 2000, seeking 500, playing 500, seek 500"},
        {"until STOP", Started({{3000, TY_EVENT_SEEK}, {3200, TY_EVENT_STOP}}),
         "start-up 1000, playing 2000, seeking 200, open seek 200"},
        {"before the first frame",
         {{0, TY_EVENT_START},
          {100, TY_EVENT_SEEK},
          {200, TY_EVENT_SEEK_COMPLETE},
          {1000, TY_EVENT_RENDER_START}},
         "start-up 1000, playing 0"},
        {"until SEEK_COMPLETE without positions",
         {{0, TY_EVENT_START},
          {1000, TY_EVENT_RENDER_START},
          {3000, TY_EVENT_SEEK},
          {3200, TY_EVENT_SEEK_COMPLETE},
          {4000, TY_EVENT_STOP}},
         "start-up 1000, playing 2000, seeking 200, playing 800, seek 200"},
    });
}

TEST(Timeline, PausesWithoutStalls) {
    ExpectPhases({
        {"buffering within a pause",
         Started({{2000, TY_EVENT_PAUSE},
                  {2100, TY_EVENT_BUFFERING_START},
                  {2200, TY_EVENT_BUFFERING_END},
                  {3000, TY_EVENT_RESUME},
                  {4000, TY_EVENT_STOP}}),
         "start-up 1000, playing 1000, paused 1000, playing 1000"},
        {"a pause within buffering",
         Started({{2000, TY_EVENT_BUFFERING_START},
                  {2100, TY_EVENT_PAUSE},
                  {2100, TY_EVENT_PLAYING_TIME, 0, 1100},
                  {2900, TY_EVENT_RESUME},
                  {3000, TY_EVENT_BUFFERING_END},
                  {4000, TY_EVENT_STOP}}),
         "start-up 1000, playing 1000, stalled connection 100, paused 800, stalled connection 100, "
         "playing 1000"},
        {"a seek within a pause, which ends at SEEK_COMPLETE",
         Started({{2000, TY_EVENT_PAUSE},
                  {2100, TY_EVENT_SEEK},
                  {2400, TY_EVENT_SEEK_COMPLETE},
                  {3000, TY_EVENT_RESUME},
                  {4000, TY_EVENT_STOP}}),
         "start-up 1000, playing 1000, paused 100, seeking 300, paused 600, playing 1000, seek "
         "300"},
        {"before the first frame", {{0, TY_EVENT_START}, {50, TY_EVENT_PAUSE}}, "start-up 50"},
    });
}

TEST(Timeline, GoesOnWithoutRecordsThatAreMissing) {
    ExpectPhases({
        {"BUFFERING_END, before another BUFFERING_START",
         Started({{2000, TY_EVENT_BUFFERING_START},
                  {3000, TY_EVENT_BUFFERING_START},
                  {3500, TY_EVENT_BUFFERING_END},
                  {4000, TY_EVENT_STOP}}),
         "start-up 1000, playing 1000, unknown 1000, stalled connection 500, playing 500"},
        {"BUFFERING_END, before a heartbeat",
         Started({{1000, TY_EVENT_BUFFERING_START}, Heartbeat(10'001), {10'501, TY_EVENT_STOP}}),
         "start-up 1000, playing 0, unknown 9001, playing 500"},
        {"none: the heartbeat is of a position before the stall",
         Started({{1000, TY_EVENT_BUFFERING_START}, Heartbeat(10'000), {10'500, TY_EVENT_STOP}}),
         "start-up 1000, playing 0, stalled connection 9500"},
        {"SEEK_COMPLETE",
         Started({{1000, TY_EVENT_SEEK},
                  {1001, TY_EVENT_SEEK},
                  {1002, TY_EVENT_SEEK},
                  Heartbeat(10'000),
                  {10'003, TY_EVENT_PLAYING_TIME, 360'000, 180'000},
                  {10'500, TY_EVENT_STOP}}),
         "start-up 1000, playing 0, unknown 9003, playing 497, open seek 9003"},
        {"RESUME",
         Started({{2000, TY_EVENT_PAUSE}, {3000, TY_EVENT_PLAYBACK_TIME}, {4000, TY_EVENT_STOP}}),
         "start-up 1000, playing 1000, paused 1000, playing 1000"},
        {"RENDER_START",
         {{0, TY_EVENT_START}, {2000, TY_EVENT_PLAYBACK_TIME}, {4000, TY_EVENT_STOP}},
         "start-up 2000, playing 2000"},
        {"RENDER_START and the first position",
         {{0, TY_EVENT_START}, Heartbeat(10'000), {11'000, TY_EVENT_STOP}},
         "start-up 10000, playing 1000"},
        {"START",
         {{0, TY_EVENT_BUFFERING_START, -1},
          {500, TY_EVENT_BUFFERING_END},
          {2000, TY_EVENT_BUFFERING_START, 1500},
          {2300, TY_EVENT_BUFFERING_END},
          {4000, TY_EVENT_STOP}},
         "stalled start 500, playing 1500, stalled connection 300, playing 1700"},
        {"STOP", Started({{2000, TY_EVENT_PAUSE}, {3000, 240}}),
         "start-up 1000, playing 1000, paused 1000"},
        {"none after STOP",
         Started({{2000, TY_EVENT_STOP}, {2000, TY_EVENT_PLAYING_TIME}, {9000, TY_EVENT_PAUSE}}),
         "start-up 1000, playing 1000"},
    });
}

TEST(Timeline, LeavesOutTimesDuringWhichTheClockWasSet) {
    const struct {
        std::int64_t at;
        std::int64_t length;
        std::int64_t steps;
    } cases[] = {{0, 0, 1},          {1, 0, 0}, {999, 0, 0}, {1000, 0, 0}, {1000 + kDay, kDay, 0},
                 {1001 + kDay, 0, 1}};
    for (const auto& one : cases) {
        const TYTimeline timeline =
            AnalyzePlayback(RecordsOf(Started({{one.at, TY_EVENT_PAUSE}, {one.at + 5, 240}})));
        EXPECT_EQ(timeline.phases.at(1).length, one.length);
        EXPECT_EQ(timeline.phases.at(2).length, 5);
        EXPECT_EQ(timeline.clockSteps, one.steps);
    }
}

TEST(Timeline, KnowsTheStartUpOnlyIfItWasMeasured) {
    const struct {
        TimelineSteps steps;
        std::optional<std::int64_t> startUp;
    } cases[] = {
        {Started({}), 1000},
        {Started({{1200, TY_EVENT_RENDER_START}}), 1000},
        {{{9000, TY_EVENT_START}, {9050, TY_EVENT_BUFFERING_START}, {20, TY_EVENT_RENDER_START}},
         {}},
        {{{50, TY_EVENT_START}, {20, TY_EVENT_RENDER_START}}, 0},
        {{}, {}},
        {{{0, TY_EVENT_START}, {2000, TY_EVENT_PLAYBACK_TIME}, {2100, TY_EVENT_RENDER_START}}, {}},
        {{{0, TY_EVENT_BUFFERING_START}, {500, TY_EVENT_RENDER_START}}, {}},
        {{{0, TY_EVENT_START}, {500, TY_EVENT_STOP}}, {}},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(AnalyzePlayback(RecordsOf(one.steps)).startUp, one.startUp);
    }
}

// The library stamps BUFFERING_TIME on another thread, so it may be stored before a RENDER_START
// that has an earlier time.
TEST(Timeline, TakesTheOrderOfThreadsForNoSetClock) {
    const TYTimeline timeline = AnalyzePlayback(RecordsOf({{0, TY_EVENT_START},
                                                           {100, TY_EVENT_BUFFERING_START, -1},
                                                           {300, TY_EVENT_BUFFERING_END},
                                                           {301, TY_EVENT_BUFFERING_TIME, 200},
                                                           {300, TY_EVENT_RENDER_START},
                                                           {350, TY_EVENT_PLAYBACK_TIME}}));
    EXPECT_EQ(timeline.startUp, 300);
    EXPECT_EQ(timeline.clockSteps, 0);
    EXPECT_THAT(timeline.offsets, testing::ElementsAre(0, 100, 300, 301, 301, 351));
}

TEST(Timeline, OfARecordingKeepsItsStartUpIfTheWorkerIsLate) {
    const auto analyze = [](const std::filesystem::path& file, int late) {
        TimelineSteps steps;
        for (const PlaybackRecord& record : RecordedPlayback(file, 1)) {
            const bool isDerived =
                record.event >= TY_EVENT_PLAYING_TIME && record.event <= TY_EVENT_BUFFERING_TIME;
            steps.push_back(
                {record.time + (isDerived ? late : 0), record.event, record.param1, record.param2});
        }
        return AnalyzePlayback(RecordsOf(steps));
    };
    int started = 0;
    for (const auto& file : std::filesystem::directory_iterator(RECORDINGS)) {
        const TYTimeline timeline = analyze(file.path(), 999);
        EXPECT_EQ(timeline.startUp, analyze(file.path(), 0).startUp) << file.path();
        EXPECT_EQ(timeline.clockSteps, 0) << file.path();
        started += timeline.startUp ? 1 : 0;
    }
    EXPECT_GE(started, 2);
}

TEST(Timeline, WithoutRecordsIsNotStarted) {
    EXPECT_FALSE(AnalyzePlayback({}).rendered);
    EXPECT_TRUE(AnalyzePlayback(RecordsOf({{0, TY_EVENT_PAUSE}})).rendered);
}

// Looking through all phases for each stall would take minutes.
TEST(Timeline, OfManyStallsTakesTimeForEachOnce) {
    TimelineSteps steps = Started({});
    for (int i = 0; i < 200'000; ++i) {
        steps.push_back({2000 + i, i % 2 == 0 ? TY_EVENT_BUFFERING_START : TY_EVENT_BUFFERING_END});
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(AnalyzePlayback(RecordsOf(steps)).phases.size(), 200'002U);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

}  // namespace
