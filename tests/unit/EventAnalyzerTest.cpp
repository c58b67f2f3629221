// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYEventAnalyzer.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int kAnchors[] = {
    TY_EVENT_START,           TY_EVENT_STOP,          TY_EVENT_PAUSE,
    TY_EVENT_BUFFERING_START, TY_EVENT_BUFFERING_END, TY_EVENT_RENDER_START,
    TY_EVENT_PLAYBACK_TIME,   TY_EVENT_PLAYING_TIME,  TY_ERROR_PLAYBACK_TIME_JUMP};

/// Analyses on the test's own thread, and sends the results.
class CEventAnalyzerTest : public CSeamTest {
  protected:
    CEventAnalyzerTest() { m_Analyzer.Initthread(&m_Sender); }
    // A sender never frees what is still queued.
    ~CEventAnalyzerTest() override {
        m_Analyzer.RequestTerminate();
        m_Sender.ClearCollectedData();
    }

    /// Analyses a record that was stamped at a second of the wall clock.
    void Analyze(const Report& report, std::int32_t second, std::int32_t nanosecond = 0) {
        TYMediaRecord* pRecord = NewRecord(report.event, report.param1, report.param2);
        pRecord->time = {second, nanosecond};
        m_Analyzer.InsertData(pRecord);
        m_Analyzer.AnalyzeEvent();
    }

    std::vector<TYMediaData> Forwarded() {
        while (m_Sender.GetQueueSize() > 0) {
            m_Sender.SendData();
        }
        return SentRecords();
    }

    CTYDataSender m_Sender{m_Bus, m_Clock};
    CTYEventAnalyzer m_Analyzer{m_Clock};
};

/// A record, analysed at this second. It was stamped half a second before, and a length that ends
/// with its derivation counts that half second.
struct Step {
    int second;
    Report record;
    Reports derived{};
};
using CDerivationTest = CTableTest<CEventAnalyzerTest, std::vector<Step>>;

TEST_P(CDerivationTest, DerivesFromTheSequence) {
    Reports expected;
    for (const Step& step : Case()) {
        m_Clock.SetRealTime(step.second, 500000000);
        Analyze(step.record, step.second);
        expected.push_back(step.record);
        expected.insert(expected.end(), step.derived.begin(), step.derived.end());
    }
    EXPECT_EQ(ToReports(Forwarded()), expected);
}

const Report kStart{TY_EVENT_START};
const Report kBegin{TY_EVENT_BUFFERING_START, 100, -60};
const Report kEnd{TY_EVENT_BUFFERING_END, 3, 4};
const Report kMismatchedBegin{TY_ERROR_BUFFERING_MISMATCH, 100, -60};
const Report kMismatchedEnd{TY_ERROR_BUFFERING_MISMATCH, 3, 4};

constexpr Report Stop(int position) {
    return {TY_EVENT_STOP, position, 5};
}
constexpr Report Pause(int position) {
    return {TY_EVENT_PAUSE, position, 5};
}
constexpr Report Position(int position) {
    return {TY_EVENT_PLAYBACK_TIME, position};
}
constexpr Report Played(int position, int milliseconds) {
    return {TY_EVENT_PLAYING_TIME, position, milliseconds};
}
constexpr Report Stalled(int milliseconds) {
    return {TY_EVENT_BUFFERING_TIME, milliseconds, 4};
}
constexpr Report Shown(int milliseconds) {
    return {TY_EVENT_START_UP_TIME, milliseconds, 12};
}

const Named<std::vector<Step>> kSequences[] = {
    {"StartUpTimeFromTheStampOfStartToTheDerivation",
     {{10, kStart}, {11, {TY_EVENT_RENDER_START, 11, 12}, {Shown(1500)}}}},
    {"StartUpTimeFromZeroBeforeAnyStart", {{7, {TY_EVENT_RENDER_START, 11, 12}, {Shown(7500)}}}},
    {"StallFromTheStampOfItsBeginningToTheDerivation", {{10, kBegin}, {12, kEnd, {Stalled(2500)}}}},
    {"EndWithoutABeginningIsAMismatch",
     {{10, kBegin}, {12, kEnd, {Stalled(2500)}}, {13, kEnd, {kMismatchedEnd}}}},
    {"SecondBeginningIsAMismatchAndRestartsTheStall",
     {{10, kBegin}, {15, kBegin, {kMismatchedBegin}}, {17, kEnd, {Stalled(2500)}}}},
    {"StopClearsTheStall",
     {{10, kBegin}, {10, Stop(0), {Played(0, 0)}}, {11, kEnd, {kMismatchedEnd}}}},
    {"PauseKeepsTheStall",
     {{10, kBegin}, {10, Pause(0), {Played(0, 0)}}, {11, kEnd, {Stalled(1500)}}}},
    {"PlayTimeSinceAHeartbeat", {{1, Played(1000, 9)}, {1, Stop(4000), {Played(4000, 3000)}}}},
    {"NoPlayTimeRightAfterStart", {{1, kStart}, {1, Stop(4000), {Played(4000, 0)}}}},
    {"WholePositionBeforeAnyAnchor", {{1, Stop(4000), {Played(4000, 4000)}}}},
    {"StopKeepsTheAnchor",
     {{1, Played(1000, 9)},
      {1, Stop(4000), {Played(4000, 3000)}},
      {1, Stop(6000), {Played(6000, 5000)}}}},
    {"PauseForgetsTheAnchor",
     {{1, Played(1000, 9)},
      {1, Pause(1500), {Played(1500, 500)}},
      {1, Pause(2500), {Played(2500, 0)}}}},
    {"FirstPositionAfterStartIsTheAnchor",
     {{1, kStart}, {1, Position(700)}, {1, Position(900)}, {1, Stop(1000), {Played(1000, 300)}}}},
    {"PositionBeforeAnyStartIsNoAnchor",
     {{1, Position(700)}, {1, Stop(4000), {Played(4000, 4000)}}}},
    {"JumpIsTheAnchor",
     {{1, kStart},
      {1, Position(700)},
      {1, {TY_ERROR_PLAYBACK_TIME_JUMP, 900}},
      {1, Stop(1000), {Played(1000, 100)}}}},
    {"PlayTimeWrapsAtThirtyTwoBits",
     {{1, Played(INT32_MIN, 9)}, {1, Stop(INT32_MAX), {Played(INT32_MAX, -1)}}}},
};
INSTANTIATE_TEST_SUITE_P(Table, CDerivationTest, testing::ValuesIn(kSequences), kByName);

TEST_F(CEventAnalyzerTest, OtherCodesAreForwardedAndTouchNeitherTheStallNorTheAnchor) {
    Reports expected{{TY_EVENT_PLAYING_TIME, 1000}, kBegin};
    for (int code = 0; code <= kLastCode; ++code) {
        if (std::ranges::count(kAnchors, code) == 0) {
            expected.push_back({code, 7777, 8});
        }
    }
    for (const Report& report : Reports(expected)) {
        Analyze(report, 1);
    }
    m_Clock.SetRealTime(2, 0);
    Analyze(kEnd, 1);
    Analyze(Stop(4000), 1);
    expected.insert(expected.end(), {kEnd, Stalled(1000), Stop(4000), Played(4000, 3000)});
    EXPECT_EQ(ToReports(Forwarded()), expected);
}

TEST_F(CEventAnalyzerTest, RecordIsForwardedUnchanged) {
    std::unique_ptr<TYMediaRecord> record(NewRecord(250));
    TYMediaData& image = *record;
    auto* pBytes = reinterpret_cast<unsigned char*>(&image);
    for (std::size_t i = 0; i < sizeof(image); ++i) {
        pBytes[i] = static_cast<unsigned char>(1 + i % 255);
    }
    image.event = 250;
    image.content.pUrl = 0;  // always zero
    const TYMediaData filled = image;
    m_Analyzer.InsertData(record.release());
    m_Analyzer.AnalyzeEvent();
    const auto records = Forwarded();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(std::memcmp(records.data(), &filled, sizeof(filled)), 0);
    EXPECT_THAT(SentUrls(), ElementsAre("film.mp4"));
}

TEST_F(CEventAnalyzerTest, DerivedRecordHasItsSourcesUrlAndTheTimeOfItsDerivation) {
    m_Clock.SetRealTime(500, 1);
    Analyze(Stop(0), 400, 2);
    const auto records = Forwarded();
    EXPECT_EQ(records.at(0).time.sec, 400);
    EXPECT_EQ(records.at(0).time.nsec, 2);
    EXPECT_EQ(records.at(1).time.sec, 500);
    EXPECT_EQ(records.at(1).time.nsec, 1);
    EXPECT_THAT(SentUrls(), ElementsAre("film.mp4", "film.mp4"));
    EXPECT_TRUE(Debug("event 2."));
    EXPECT_TRUE(Debug("event 20."));
}

TEST_F(CEventAnalyzerTest, EmptyQueueIsNoWork) {
    EXPECT_TRUE(Debug("Create >>"));
    m_Analyzer.AnalyzeEvent();
    EXPECT_THAT(Forwarded(), IsEmpty());
    EXPECT_TRUE(NotLogged("queue is empty!"));
}

TEST_F(CEventAnalyzerTest, CallerKeepsARecordIfThereIsNoSender) {
    CTYEventAnalyzer analyzer(m_Clock);
    const std::unique_ptr<TYMediaRecord> record(NewRecord(TY_EVENT_RESUME));
    analyzer.InsertDataAtIPCQueue(record.get());
    EXPECT_TRUE(NotLogged("event 7."));
    EXPECT_EQ(record->event, TY_EVENT_RESUME);
}

TEST_F(CEventAnalyzerTest, TimeDifferenceIsInWholeMillisecondsOfThirtyTwoBits) {
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
        EXPECT_TRUE(Debug(line));
    }
}

TEST_F(CEventAnalyzerTest, CopiedRecordDiffersInEventAndTimeOnlyAndKeepsItsUrl) {
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
    EXPECT_TRUE(Debug("[EXCUTE] event type : 20"));
}

TEST_F(CEventAnalyzerTest, PrintingLogsSevenLinesInOrderAndAnIdentifierThatFillsItsField) {
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

}  // namespace
