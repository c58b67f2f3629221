// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "receiver/Events.h"

#include <gtest/gtest.h>

#include <vector>

namespace receiver {
namespace {

Record MakeRecord(std::uint8_t event, const char* pPlayback = "p1") {
    Record record;
    record.event = event;
    record.playbackId = pPlayback;
    record.serviceId = "app";
    return record;
}

std::vector<Origin> Track(const std::vector<Record>& records) {
    COriginTracker tracker;
    std::vector<Origin> origins;
    origins.reserve(records.size());
    for (const Record& record : records) {
        origins.push_back(tracker.Next(record));
    }
    return origins;
}

constexpr Origin kReported = Origin::Reported;
constexpr Origin kHeartbeat = Origin::Heartbeat;
constexpr Origin kDerived = Origin::Derived;

TEST(EventNames, ReportedDerivedAndUnknownCodesHaveNames) {
    EXPECT_EQ(EventName(1), "START");
    EXPECT_EQ(EventName(4), "BUFFERING_START");
    EXPECT_EQ(EventName(10), "SEEK_COMPLETE");
    EXPECT_EQ(EventName(20), "PLAYING_TIME");
    EXPECT_EQ(EventName(21), "TIME_TO_RENDER");
    EXPECT_EQ(EventName(22), "BUFFERING_TIME");
    EXPECT_EQ(EventName(202), "ERROR_BUFFERING_MISMATCH");
    EXPECT_EQ(EventName(204), "ERROR_PLAYBACK_TIME_JUMP");
    EXPECT_EQ(EventName(77), "CODE 77");
}

TEST(EventParameters, TheirMeaningStandsBeforeThem) {
    Record record = MakeRecord(9);
    record.param1 = -1;
    record.param2 = 90000;

    EXPECT_EQ(DescribeParameters(record), "position=-1 target=90000");
}

TEST(EventParameters, FreeOnesAreShownWhenSet) {
    Record record = MakeRecord(150);
    EXPECT_EQ(DescribeParameters(record), "");
    record.param2 = 5;
    EXPECT_EQ(DescribeParameters(record), "param2=5");
}

TEST(EventOrigins, APlayTimeDirectlyBehindAStopIsTheAnalyzers) {
    EXPECT_EQ(Track({MakeRecord(1), MakeRecord(2), MakeRecord(20)}),
              (std::vector{kReported, kReported, kDerived}));
}

TEST(EventOrigins, APlayTimeDirectlyBehindAPauseIsTheAnalyzers) {
    EXPECT_EQ(Track({MakeRecord(3), MakeRecord(20), MakeRecord(7), MakeRecord(20)}),
              (std::vector{kReported, kDerived, kReported, kHeartbeat}));
}

TEST(EventOrigins, OnlyTheFirstPlayTimeBehindAPauseIsTheAnalyzers) {
    EXPECT_EQ(Track({MakeRecord(3), MakeRecord(20), MakeRecord(20)}),
              (std::vector{kReported, kDerived, kHeartbeat}));
}

TEST(EventOrigins, AStopOfAnotherPlaybackDoesNotCount) {
    EXPECT_EQ(Track({MakeRecord(2, "p1"), MakeRecord(20, "p2"), MakeRecord(20, "p1")}),
              (std::vector{kReported, kHeartbeat, kDerived}));
}

TEST(EventOrigins, LengthsAndMismatchesAreTheAnalyzers) {
    EXPECT_EQ(Track({MakeRecord(21), MakeRecord(22), MakeRecord(202), MakeRecord(203)}),
              (std::vector{kDerived, kDerived, kDerived, kReported}));
}

}  // namespace
}  // namespace receiver
