// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYEventAnalyzer.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>

using testing::ContainsRegex;

namespace {

class CMediaDataTest : public CSeamTest {
  protected:
    CTYEventAnalyzer m_Analyzer{m_Clock};
};

TEST_F(CMediaDataTest, TimeDifferenceBorrowsFromTheSeconds) {
    EXPECT_EQ(CTYEventAnalyzer::GetTimeDiffInMS({10, 900000000}, {12, 100000000}), 1200);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "DIFF___TIME sec[1] usec[200000000]\n"));
}

TEST_F(CMediaDataTest, TimeDifferenceOfEqualTimesIsZero) {
    EXPECT_EQ(CTYEventAnalyzer::GetTimeDiffInMS({10, 5}, {10, 5}), 0);
}

TEST_F(CMediaDataTest, TimeDifferenceCutsWhatIsBelowAMillisecond) {
    EXPECT_EQ(CTYEventAnalyzer::GetTimeDiffInMS({5, 0}, {5, 999999}), 0);
}

TEST_F(CMediaDataTest, TimeDifferenceIsNegativeWhenTheEndIsASecondEarlier) {
    EXPECT_EQ(CTYEventAnalyzer::GetTimeDiffInMS({6, 700}, {5, 700}), -1000);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "DIFF___TIME sec[4294967295] usec[0]\n"));
}

TEST_F(CMediaDataTest, TimeDifferenceWrapsAtThirtyTwoBits) {
    EXPECT_EQ(CTYEventAnalyzer::GetTimeDiffInMS({0, 0}, {4294968, 0}), 704);
}

TEST_F(CMediaDataTest, CopyDiffersInEventTimeAndUrlOnly) {
    m_Clock.SetRealTime(1234, 5678);
    const std::unique_ptr<TYMediaRecord> source(NewRecord(2, 7, 8, "a/b.ts"));
    std::memset(source->playbackID, 'x', sizeof(source->playbackID));
    source->content.duration = 99;
    std::unique_ptr<TYMediaRecord> copy(m_Analyzer.CopyData(source.get(), 20));
    EXPECT_EQ(copy->event, 20);
    EXPECT_EQ(copy->time.sec, 1234);
    EXPECT_EQ(copy->time.nsec, 5678);
    EXPECT_EQ(copy->Url(), "a/b.ts");
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "[EXCUTE] event type : 20"));
    copy->event = source->event;
    copy->time = source->time;
    const TYMediaData& copied = *copy;
    const TYMediaData& original = *source;
    EXPECT_EQ(std::memcmp(&copied, &original, sizeof(TYMediaData)), 0);
}

TEST_F(CMediaDataTest, CopyKeepsItsUrlWhenTheSourceIsDestroyed) {
    std::unique_ptr<TYMediaRecord> source(NewRecord(2, 0, 0, std::string(100, 'u')));
    const std::unique_ptr<TYMediaRecord> copy(m_Analyzer.CopyData(source.get(), 20));
    source.reset();
    EXPECT_EQ(copy->Url(), std::string(100, 'u'));
}

TEST_F(CMediaDataTest, CopyEndsTheProcessWhenTheClockFails) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::unique_ptr<TYMediaRecord> source(NewRecord(2));
    m_Clock.FailRealTime(true);
    m_Platform.echo = true;
    EXPECT_DEATH(delete m_Analyzer.CopyData(source.get(), 20),
                 ContainsRegex("6 TALLYRA clock_gettime failed!!\n.*Assertion `false' failed"));
}

TEST_F(CMediaDataTest, PlaybackIdentifierOfTwentyFiveCharactersFillsItsField) {
    const std::unique_ptr<TYMediaRecord> record(NewRecord(9));
    std::fill(std::begin(record->playbackID), std::end(record->playbackID), '7');
    EXPECT_EQ(record->serviceVersion[0], '\0');
    CTYEventAnalyzer::PrintData(record.get());
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "playbackID " + std::string(25, '7') + "."));
}

TEST_F(CMediaDataTest, PrintWritesSevenLinesInOrder) {
    const std::unique_ptr<TYMediaRecord> record(NewRecord(250, -1, 2, "u"));
    record->playerID = -3;
    record->content.duration = 60;
    std::memset(record->playbackID, '9', sizeof(record->playbackID));
    CTYEventAnalyzer::PrintData(record.get());
    const auto log = m_Platform.Log();
    const std::vector<std::string> expected = {
        "pUrl u.",      "duration 60.", "playbackID " + std::string(25, '9') + ".",
        "playerID -3.", "event 250.",   "param1 -1.",
        "param2 2."};
    ASSERT_EQ(log.size(), expected.size() + 1);  // behind "Create >>"
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(log[i + 1].text, expected[i]);
        EXPECT_EQ(log[i + 1].priority, LOGSVC_DEBUG);
        EXPECT_EQ(log[i + 1].tag, kTag);
    }
}

TEST(CopyText, CutsAndTerminatesAndLeavesNothingBehind) {
    char field[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    CopyText(field, "ab");
    EXPECT_EQ(std::string(field, 8), std::string("ab\0\0\0\0\0\0", 8));
    CopyText(field, "0123456789");
    EXPECT_STREQ(field, "0123456");
}

TEST(MediaRecord, StartsWithEveryByteZero) {
    const TYMediaRecord record;
    const std::vector<char> zeros(sizeof(TYMediaData));
    EXPECT_EQ(std::memcmp(static_cast<const TYMediaData*>(&record), zeros.data(), zeros.size()), 0);
}

}  // namespace
