// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "receiver/Events.h"

#include <gtest/gtest.h>

#include <vector>

namespace receiver {
namespace {

constexpr Origin kReported = Origin::Reported;
constexpr Origin kHeartbeat = Origin::Heartbeat;
constexpr Origin kDerived = Origin::Derived;

TEST(EventNames, AreThoseOfTheCodes) {
    const std::pair<std::uint8_t, const char*> names[] = {{1, "START"},
                                                          {4, "BUFFERING_START"},
                                                          {10, "SEEK_COMPLETE"},
                                                          {20, "PLAYING_TIME"},
                                                          {21, "TIME_TO_RENDER"},
                                                          {22, "BUFFERING_TIME"},
                                                          {202, "ERROR_BUFFERING_MISMATCH"},
                                                          {204, "ERROR_PLAYBACK_TIME_JUMP"},
                                                          {77, "CODE 77"}};
    for (const auto& [code, pName] : names) {
        EXPECT_EQ(EventName(code), pName);
    }
}

TEST(EventParameters, HaveTheirMeaningOrAreShownWhenSet) {
    struct {
        std::uint8_t event;
        std::int32_t param1;
        std::int32_t param2;
        const char* pText;
    } const cases[] = {
        {9, -1, 90000, "position=-1 target=90000"}, {150, 0, 0, ""}, {150, 0, 5, "param2=5"}};
    for (const auto& one : cases) {
        Record record;
        record.event = one.event;
        record.param1 = one.param1;
        record.param2 = one.param2;
        EXPECT_EQ(DescribeParameters(record), one.pText);
    }
}

struct Given {
    std::uint8_t event;
    Origin origin;
    const char* pPlayback = "p1";
};

const std::pair<const char*, std::vector<Given>> kStreams[] = {
    {"a play time directly after a STOP is derived",
     {{1, kReported}, {2, kReported}, {20, kDerived}}},
    {"a play time directly after a PAUSE is derived",
     {{3, kReported}, {20, kDerived}, {7, kReported}, {20, kHeartbeat}}},
    {"only the first play time after a PAUSE is derived",
     {{3, kReported}, {20, kDerived}, {20, kHeartbeat}}},
    {"a STOP of another playback does not count",
     {{2, kReported, "p1"}, {20, kHeartbeat, "p2"}, {20, kDerived, "p1"}}},
    {"lengths and mismatches are derived",
     {{21, kDerived}, {22, kDerived}, {202, kDerived}, {203, kReported}}}};

TEST(EventOrigins, FollowFromTheCodeAndTheRecordBefore) {
    for (const auto& [pWhat, stream] : kStreams) {
        SCOPED_TRACE(pWhat);
        COriginTracker tracker;
        for (const Given& given : stream) {
            Record record;
            record.event = given.event;
            record.playbackId = given.pPlayback;
            record.serviceId = "app";
            EXPECT_EQ(tracker.Next(record), given.origin);
        }
    }
}

}  // namespace
}  // namespace receiver
