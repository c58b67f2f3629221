// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPlaybackLog.h"

#include "Sessions.h"
#include "TYEventCodes.h"
#include "Test.h"

#include <algorithm>
#include <random>

namespace {

using Keyed = std::vector<std::pair<TYRecordKey, TYMediaData>>;

TYMediaData RecordOf(int event, std::int32_t param1 = 0) {
    TYMediaData record{};
    record.event = static_cast<std::uint8_t>(event);
    record.param1 = param1;
    return record;
}

CTYPlaybackLog LogOf(const Keyed& records) {
    CTYPlaybackLog log;
    for (const auto& [key, record] : records) {
        log.Add(key, record);
    }
    return log;
}

// Half of the records come from a second store.
Keyed RecordsOfSession(int number) {
    CDice dice(static_cast<std::uint64_t>(number));
    const Session session = MakeSession(dice, number, 1'795'234'190'000);
    Keyed records;
    for (const TYMediaData& record : session.records) {
        const auto count = static_cast<std::int64_t>(records.size());
        const bool isSecond = records.size() >= session.records.size() / 2;
        records.push_back({{isSecond ? 2 : 1, isSecond ? count - 5 : 1000 + count}, record});
    }
    return records;
}

TEST(PlaybackLog, DoesNotDependOnTheOrderOfItsRecords) {
    std::mt19937 random(1);
    for (int number = 1; number <= 50; ++number) {
        Keyed records = RecordsOfSession(number);
        const std::string packed = LogOf(records).Pack();
        std::shuffle(records.begin(), records.end(), random);
        EXPECT_EQ(LogOf(records).Pack(), packed);
    }
}

TEST(PlaybackLog, IsTheSameAfterPacking) {
    const Keyed records = RecordsOfSession(7);
    const CTYPlaybackLog log = LogOf(records);
    const CTYPlaybackLog unpacked(log.Pack());
    EXPECT_EQ(unpacked.GetMarks(), log.GetMarks());
    EXPECT_EQ(unpacked.Pack(), log.Pack());
    ASSERT_EQ(unpacked.Records().size(), log.Records().size());
    EXPECT_EQ(unpacked.Records().back().time, log.Records().back().time);
    EXPECT_EQ(unpacked.Records()[3].param1, records[3].second.param1);
}

TEST(PlaybackLog, KeepsExtremeNumbers) {
    TYMediaData record = RecordOf(TY_EVENT_SEEK, INT32_MIN);
    record.param2 = INT32_MAX;
    record.time = {INT32_MIN, 999'999'999};
    const TYTimelineRecord kept =
        CTYPlaybackLog(LogOf({{{INT32_MAX, INT64_MAX}, record}}).Pack()).Records().front();
    EXPECT_EQ(kept.param1, INT32_MIN);
    EXPECT_EQ(kept.param2, INT32_MAX);
    EXPECT_EQ(kept.time, INT32_MIN * std::int64_t{1000} + 999);
}

TEST(PlaybackLog, LeavesOutWhatFollowsStop) {
    const CTYPlaybackLog log = LogOf({{{1, 1}, RecordOf(TY_EVENT_START)},
                                      {{1, 3}, RecordOf(TY_EVENT_PLAYING_TIME)},
                                      {{1, 2}, RecordOf(TY_EVENT_STOP)},
                                      {{1, 4}, RecordOf(TY_EVENT_START)}});
    EXPECT_EQ(log.Records().size(), 2U);
    EXPECT_EQ(log.GetMarks().last, (TYRecordKey{1, 4}));
    EXPECT_EQ(log.GetMarks().lastStart, (TYRecordKey{1, 4}));
}

TEST(PlaybackLog, IsBounded) {
    constexpr std::int64_t kMost = CTYPlaybackLog::kMostRecords;
    CTYPlaybackLog log;
    for (std::int64_t id = 2; id <= kMost + 1; ++id) {
        log.Add({1, id}, RecordOf(TY_EVENT_SEEK, static_cast<std::int32_t>(id)));
    }
    EXPECT_FALSE(log.IsCut());
    log.Add({1, 1}, RecordOf(TY_EVENT_START));
    EXPECT_TRUE(log.IsCut());
    EXPECT_EQ(log.Records().size(), CTYPlaybackLog::kMostRecords);
    EXPECT_EQ(log.Records().back().param1, kMost);
    EXPECT_TRUE(CTYPlaybackLog(log.Pack()).IsCut());
}

TEST(PlaybackLog, RefusesDamagedBytes) {
    const std::string packed = LogOf(RecordsOfSession(7)).Pack();
    EXPECT_THROW(CTYPlaybackLog{""}, std::runtime_error);
    EXPECT_THROW(CTYPlaybackLog{"\x02" + packed.substr(1)}, std::runtime_error);
    EXPECT_THROW(CTYPlaybackLog{packed.substr(0, packed.size() - 1)}, std::runtime_error);
    EXPECT_THROW(CTYPlaybackLog{"\x01" + std::string(20, '\xff')}, std::runtime_error);
}

}  // namespace
