// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYEventAnalyzer.h"

#include <gmock/gmock.h>

#include <cstring>

namespace {

class CMediaDataTest : public CSeamTest {
  protected:
    CTYEventAnalyzer m_Analyzer{m_Clock};
};

TEST_F(CMediaDataTest, TimeDifferenceIsInWholeMillisecondsOfThirtyTwoBits) {
    const struct {
        TYTime start;
        TYTime end;
        int milliseconds;
        const char* line;
    } cases[] = {
        {{10, 900000000}, {12, 100000000}, 1200, "DIFF___TIME sec[1] usec[200000000]\n"},
        {{10, 5}, {10, 5}, 0, "DIFF___TIME sec[0] usec[0]\n"},
        {{5, 0}, {5, 999999}, 0, "DIFF___TIME sec[0] usec[999999]\n"},
        {{6, 700}, {5, 700}, -1000, "DIFF___TIME sec[4294967295] usec[0]\n"},
        {{0, 0}, {4294968, 0}, 704, "DIFF___TIME sec[4294968] usec[0]\n"},
    };
    for (const auto& [start, end, milliseconds, line] : cases) {
        EXPECT_EQ(CTYEventAnalyzer::GetTimeDiffInMS(start, end), milliseconds) << line;
        EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, line));
    }
}

TEST_F(CMediaDataTest, CopyDiffersInEventAndTimeOnlyAndKeepsItsUrl) {
    m_Clock.SetRealTime(1234, 5678);
    std::unique_ptr<TYMediaRecord> source(NewRecord(TY_EVENT_STOP, 7, 8, std::string(100, 'u')));
    std::memset(source->playbackID, 'x', sizeof(source->playbackID));
    source->content.duration = 99;
    TYMediaData expected = *source;
    expected.event = TY_EVENT_PLAYING_TIME;
    expected.time = {1234, 5678};
    const std::unique_ptr<TYMediaRecord> copy(
        m_Analyzer.CopyData(source.get(), TY_EVENT_PLAYING_TIME));
    source.reset();
    EXPECT_EQ(std::memcmp(static_cast<const TYMediaData*>(copy.get()), &expected, 4800), 0);
    EXPECT_EQ(copy->Url(), std::string(100, 'u'));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "[EXCUTE] event type : 20"));
}

TEST_F(CMediaDataTest, PrintLogsSevenLinesInOrderAndAnIdentifierThatFillsItsField) {
    const std::unique_ptr<TYMediaRecord> record(NewRecord(250, -1, 2, "u"));
    record->playerID = -3;
    record->content.duration = 60;
    std::memset(record->playbackID, '9', sizeof(record->playbackID));
    EXPECT_EQ(record->serviceVersion[0], '\0');
    m_Platform.ClearLog();
    CTYEventAnalyzer::PrintData(record.get());
    std::vector<std::string> lines;
    for (const auto& line : m_Platform.Log()) {
        EXPECT_EQ(line.priority, LOGSVC_DEBUG);
        EXPECT_EQ(line.tag, kTag);
        lines.push_back(line.text);
    }
    EXPECT_THAT(lines, testing::ElementsAre(
                           "pUrl u.", "duration 60.", "playbackID " + std::string(25, '9') + ".",
                           "playerID -3.", "event 250.", "param1 -1.", "param2 2."));
}

TEST(CopyText, CutsTerminatesAndFillsTheRestWithNuls) {
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
