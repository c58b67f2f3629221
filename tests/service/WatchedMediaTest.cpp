// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYWatchedMedia.h"

#include "Test.h"
#include "TimelineSteps.h"

void PrintTo(const TYSegment& segment, std::ostream* pOut) {
    *pOut << segment.begin << ".." << segment.end;
}

namespace {

using Segments = std::vector<TYSegment>;

Segments SegmentsOf(const TimelineSteps& steps) {
    const auto records = RecordsOf(steps);
    return WatchedSegments(records, AnalyzePlayback(records).offsets);
}

TEST(WatchedMedia, GrowsWithPositionsAndBreaksAtJumps) {
    const struct {
        const char* pName;
        TimelineSteps steps;
        Segments segments;
    } cases[] = {
        {"none before a position", {{0, TY_EVENT_START, 5000}, {900, TY_EVENT_STOP, -1}}, {}},
        {"to STOP", Started({{61'000, TY_EVENT_STOP, 60'000}}), {{0, 60'000}}},
        {"to a heartbeat and to BUFFERING_START",
         Started({{181'000, TY_EVENT_PLAYING_TIME, 180'000, 180'000},
                  {191'000, TY_EVENT_BUFFERING_START, 190'000}}),
         {{0, 190'000}}},
        {"not to the play time after PAUSE",
         Started({{61'000, TY_EVENT_PAUSE, 60'000},
                  {61'000, TY_EVENT_PLAYING_TIME, 60'000, 60'000},
                  {99'000, TY_EVENT_PLAYBACK_TIME, 60'000},
                  {109'000, TY_EVENT_STOP, 70'000}}),
         {{0, 60'000}, {60'000, 70'000}}},
        {"not over a seek",
         Started({{61'000, TY_EVENT_SEEK, 60'000, 900'000},
                  {62'000, TY_EVENT_SEEK, 60'000, 800'000},
                  {62'500, TY_EVENT_BUFFERING_START, 60'000},
                  {63'000, TY_EVENT_PLAYBACK_TIME, 800'000},
                  {73'000, TY_EVENT_STOP, 810'000}}),
         {{0, 60'000}, {800'000, 810'000}}},
        {"not over a jump",
         Started({{11'000, TY_ERROR_PLAYBACK_TIME_JUMP, 500'000}}),
         {{0, 0}, {500'000, 500'000}}},
        {"at twice the speed, and a little more",
         Started({{11'000, TY_EVENT_STOP, 29'000}}),
         {{0, 29'000}}},
        {"not faster", Started({{11'000, TY_EVENT_STOP, 29'001}}), {{0, 0}}},
        {"not backwards",
         Started({{61'000, TY_EVENT_BUFFERING_START, 60'000},
                  {62'000, TY_EVENT_PLAYBACK_TIME, 30'000},
                  {72'000, TY_EVENT_STOP, 40'000}}),
         {{0, 60'000}, {30'000, 40'000}}},
        {"with heartbeats, although the clock was set back",
         Started({{-99'000, TY_EVENT_PLAYING_TIME, 180'000, 180'000},
                  {-89'000, TY_EVENT_STOP, 190'000}}),
         {{0, 190'000}}},
        {"with heartbeats at any speed, until they tell of a jump",
         Started({{2000, TY_EVENT_PLAYING_TIME, 180'000, 180'000},
                  {4000, TY_EVENT_PLAYING_TIME, 369'000, 189'000},
                  {6000, TY_EVENT_PLAYING_TIME, 558'001, 189'000}}),
         {{0, 369'000}, {558'001, 558'001}}},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(SegmentsOf(one.steps), one.segments) << one.pName;
    }
}

TEST(WatchedMedia, CountsRepetitionsInItsLength) {
    EXPECT_EQ(LengthOf({}), 0);
    EXPECT_EQ(LengthOf(Segments{{30, 60}, {10, 40}}), 60);
    EXPECT_EQ(LengthOf(Segments{{-20, -10}, {-15, 5}}), 30);
}

}  // namespace
