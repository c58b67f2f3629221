// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYDataSender.h"
#include "TYEventAnalyzer.h"

#include <gmock/gmock.h>

#include <cstring>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Analyses on the test's own thread, and sends what came out of it.
class CEventAnalyzerTest : public CSeamTest {
  protected:
    CEventAnalyzerTest() { m_Analyzer.Initthread(&m_Sender); }
    // What is still queued when a sender goes is never freed.
    ~CEventAnalyzerTest() override {
        m_Analyzer.RequestTerminate();
        m_Sender.ClearCollectedData();
    }

    /// Hands in a record that was made now, and analyses it.
    void Analyze(int event, std::int32_t param1 = 0, std::int32_t param2 = 0) {
        TYMediaRecord* pRecord = NewRecord(event, param1, param2);
        timespec now{};
        m_Clock.GetRealTime(&now);
        pRecord->time = {static_cast<std::int32_t>(now.tv_sec),
                         static_cast<std::int32_t>(now.tv_nsec)};
        m_Analyzer.InsertData(pRecord);
        m_Analyzer.AnalyzeEvent();
    }

    /// Hands in a record with something in every byte but the URL's slot, which is always zero.
    /// @return what was handed in
    TYMediaData AnalyzeFilled(int event) {
        std::unique_ptr<TYMediaRecord> record(
            NewRecord(event, 0, 0, "film-" + std::to_string(event) + ".mp4"));
        TYMediaData& image = *record;
        auto* pBytes = reinterpret_cast<unsigned char*>(&image);
        for (std::size_t i = 0; i < sizeof(image); ++i) {
            pBytes[i] = static_cast<unsigned char>(1 + (i + static_cast<unsigned>(event)) % 255);
        }
        image.event = static_cast<std::uint8_t>(event);
        image.content.pUrl = 0;
        const TYMediaData filled = image;
        m_Analyzer.InsertData(record.release());
        m_Analyzer.AnalyzeEvent();
        return filled;
    }

    /// Hands in a record that was made at some second, and analyses it now.
    void AnalyzeStamped(int event, std::int32_t second) {
        TYMediaRecord* pRecord = NewRecord(event);
        pRecord->time = {second, 0};
        m_Analyzer.InsertData(pRecord);
        m_Analyzer.AnalyzeEvent();
    }

    std::vector<TYMediaData> Forwarded() {
        while (m_Sender.GetQueueSize() > 0) {
            m_Sender.SendData();
        }
        return SentRecords();
    }

    std::vector<int> ForwardedEvents() {
        Forwarded();
        return SentEvents();
    }

    /// @return all codes that neither derive nor anchor anything
    static std::vector<int> OtherCodes() {
        std::vector<int> codes;
        for (int code = 0; code < 256; ++code) {
            const bool means = (code >= 1 && code <= 6) || code == 8 || code == 20 || code == 204;
            if (!means) {
                codes.push_back(code);
            }
        }
        return codes;
    }

    CTYDataSender m_Sender{m_Bus, m_Clock};
    CTYEventAnalyzer m_Analyzer{m_Clock};
};

TEST_F(CEventAnalyzerTest, StartThenRenderStartDerivesTheStartUpTime) {
    Analyze(1);
    m_Clock.Advance(std::chrono::milliseconds(1500));
    Analyze(6, 11, 12);
    const auto records = Forwarded();
    ASSERT_THAT(SentEvents(), ElementsAre(1, 6, 21));
    EXPECT_EQ(records[2].param1, 1500);
    EXPECT_EQ(records[2].param2, 12);
}

TEST_F(CEventAnalyzerTest, StartUpTimeIsFromTheStampOfTheStartToTheDerivation) {
    m_Clock.SetRealTime(200, 0);
    AnalyzeStamped(1, 100);
    AnalyzeStamped(6, 150);
    EXPECT_EQ(Forwarded().at(2).param1, 100000);
}

TEST_F(CEventAnalyzerTest, IntervalIsFromTheStampOfItsBeginToTheDerivation) {
    m_Clock.SetRealTime(200, 0);
    AnalyzeStamped(4, 100);
    AnalyzeStamped(5, 150);
    EXPECT_EQ(Forwarded().at(2).param1, 100000);
}

TEST_F(CEventAnalyzerTest, RenderStartBeforeAnyStartMeasuresFromTheZeroTime) {
    m_Clock.SetRealTime(7, 250000000);
    Analyze(6);
    EXPECT_EQ(Forwarded().at(1).param1, 7250);
}

TEST_F(CEventAnalyzerTest, BufferingStartThenEndDerivesTheLengthOfTheInterval) {
    Analyze(4, 100, -60);
    m_Clock.Advance(std::chrono::milliseconds(2345));
    Analyze(5, 1, 2);
    const auto records = Forwarded();
    ASSERT_THAT(SentEvents(), ElementsAre(4, 5, 22));
    EXPECT_EQ(records[2].param1, 2345);
    EXPECT_EQ(records[2].param2, 2);
}

TEST_F(CEventAnalyzerTest, SecondBufferingEndWithoutAStartIsAMismatch) {
    Analyze(4);
    Analyze(5);
    Analyze(5, 3, 4);
    const auto records = Forwarded();
    ASSERT_THAT(SentEvents(), ElementsAre(4, 5, 22, 5, 202));
    EXPECT_EQ(records[4].param1, 3);
    EXPECT_EQ(records[4].param2, 4);
}

TEST_F(CEventAnalyzerTest, TwoBufferingStartsAreAMismatchAndRestartTheInterval) {
    Analyze(4);
    m_Clock.Advance(std::chrono::seconds(5));
    Analyze(4);
    m_Clock.Advance(std::chrono::seconds(2));
    Analyze(5);
    const auto records = Forwarded();
    ASSERT_THAT(SentEvents(), ElementsAre(4, 4, 202, 5, 22));
    EXPECT_EQ(records[4].param1, 2000);
}

TEST_F(CEventAnalyzerTest, StopClearsTheInterval) {
    Analyze(4);
    Analyze(2);
    Analyze(5);
    EXPECT_THAT(ForwardedEvents(), ElementsAre(4, 2, 20, 5, 202));
}

TEST_F(CEventAnalyzerTest, PauseKeepsTheInterval) {
    Analyze(4);
    Analyze(3);
    Analyze(5);
    EXPECT_THAT(ForwardedEvents(), ElementsAre(4, 3, 20, 5, 22));
}

TEST_F(CEventAnalyzerTest, HeartbeatThenStopDerivesThePlayTimeBetweenThem) {
    Analyze(20, 1000);
    Analyze(2, 4000);
    const auto records = Forwarded();
    ASSERT_THAT(SentEvents(), ElementsAre(20, 2, 20));
    EXPECT_EQ(records[2].param1, 4000);
    EXPECT_EQ(records[2].param2, 3000);
}

TEST_F(CEventAnalyzerTest, StopAfterStartHasNoPlayTime) {
    Analyze(1);
    Analyze(2, 4000, 5);
    EXPECT_EQ(Forwarded().at(2).param2, 0);
}

TEST_F(CEventAnalyzerTest, StopBeforeAnyAnchorReportsItsWholePosition) {
    Analyze(2, 4000);
    EXPECT_EQ(Forwarded().at(1).param2, 4000);
}

TEST_F(CEventAnalyzerTest, StopKeepsTheBasePosition) {
    Analyze(20, 1000);
    Analyze(2, 4000);
    Analyze(2, 6000);
    EXPECT_EQ(Forwarded().at(4).param2, 5000);
}

TEST_F(CEventAnalyzerTest, PauseDerivesThePlayTimeAndForgetsTheBasePosition) {
    Analyze(20, 1000);
    Analyze(3, 1500);
    Analyze(3, 2500);
    const auto records = Forwarded();
    ASSERT_THAT(SentEvents(), ElementsAre(20, 3, 20, 3, 20));
    EXPECT_EQ(records[2].param2, 500);
    EXPECT_EQ(records[4].param2, 0);
}

TEST_F(CEventAnalyzerTest, PositionReportSetsTheBasePositionOnlyWhenItIsUnknown) {
    Analyze(1);
    Analyze(8, 700);
    Analyze(8, 900);
    Analyze(2, 1000);
    EXPECT_EQ(Forwarded().at(4).param2, 300);
}

TEST_F(CEventAnalyzerTest, PositionReportBeforeAnyStartLeavesTheBasePositionOfZero) {
    Analyze(8, 700);
    Analyze(2, 4000);
    EXPECT_EQ(Forwarded().at(2).param2, 4000);
}

TEST_F(CEventAnalyzerTest, JumpSetsTheBasePosition) {
    Analyze(1);
    Analyze(8, 700);
    Analyze(204, 900);
    Analyze(2, 1000);
    EXPECT_EQ(Forwarded().at(4).param2, 100);
}

TEST_F(CEventAnalyzerTest, PlayTimeWrapsAtThirtyTwoBits) {
    Analyze(20, INT32_MIN);
    Analyze(2, INT32_MAX);
    EXPECT_EQ(Forwarded().at(2).param2, -1);
}

TEST_F(CEventAnalyzerTest, OtherCodesTouchNeitherTheIntervalNorTheBasePosition) {
    Analyze(20, 1000);
    Analyze(4);
    for (const int event : OtherCodes()) {
        Analyze(event, 7777);
    }
    Analyze(5);
    Analyze(2, 4000);
    const auto records = Forwarded();
    EXPECT_EQ(records.at(records.size() - 3).event, 22);
    EXPECT_EQ(records.back().param2, 3000);
}

TEST_F(CEventAnalyzerTest, OtherCodesAreForwardedUnchangedAndDeriveNothing) {
    const std::vector<int> others = OtherCodes();
    std::vector<TYMediaData> filled;
    filled.reserve(others.size());
    for (const int event : others) {
        filled.push_back(AnalyzeFilled(event));
    }
    const auto records = Forwarded();
    const auto urls = SentUrls();
    ASSERT_EQ(SentEvents(), others);
    for (std::size_t i = 0; i < others.size(); ++i) {
        EXPECT_EQ(std::memcmp(&records[i], &filled[i], 4800), 0) << others[i];
        EXPECT_EQ(urls.at(i), "film-" + std::to_string(others[i]) + ".mp4");
    }
}

TEST_F(CEventAnalyzerTest, DerivedRecordIsStampedWhenItIsDerived) {
    m_Clock.SetRealTime(500, 1);
    TYMediaRecord* pRecord = NewRecord(2, 0, 0, "a/b.ts");
    pRecord->time = {400, 2};
    m_Analyzer.InsertData(pRecord);
    m_Analyzer.AnalyzeEvent();
    const auto records = Forwarded();
    EXPECT_EQ(records.at(0).time.sec, 400);
    EXPECT_EQ(records.at(1).time.sec, 500);
    EXPECT_EQ(records.at(1).time.nsec, 1);
    EXPECT_THAT(SentUrls(), ElementsAre("a/b.ts", "a/b.ts"));
}

TEST_F(CEventAnalyzerTest, EveryForwardedRecordIsPrinted) {
    Analyze(2);
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "event 2."), 1U);
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "event 20."), 1U);
}

TEST_F(CEventAnalyzerTest, EmptyQueueIsNoWork) {
    m_Analyzer.AnalyzeEvent();
    EXPECT_THAT(ForwardedEvents(), IsEmpty());
    EXPECT_TRUE(NotLogged("queue is empty!"));
}

TEST_F(CEventAnalyzerTest, RecordWithoutASenderStaysTheCallers) {
    CTYEventAnalyzer analyzer(m_Clock);
    const std::unique_ptr<TYMediaRecord> record(NewRecord(7));
    analyzer.InsertDataAtIPCQueue(record.get());
    EXPECT_TRUE(NotLogged("event 7."));
    EXPECT_EQ(record->event, 7);
}

TEST_F(CEventAnalyzerTest, TerminationBeforeAnyStartIsLoggedAndLeavesTheStartAWholeOne) {
    m_Analyzer.RequestTerminate();
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "Event Analyzer terminate"));
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "Analyzer join terminate"));
    EXPECT_TRUE(NotLogged("Analyzer thread joinable"));
    m_Analyzer.Start();
    EXPECT_TRUE(m_Clock.AwaitWaiter(std::chrono::seconds(20)));
}

TEST_F(CEventAnalyzerTest, TerminationWakesASleepingThreadAndSaysWhatItDoes) {
    m_Analyzer.Start();
    ASSERT_TRUE(m_Clock.AwaitWaiter(std::chrono::seconds(20)));
    m_Analyzer.RequestTerminate();
    for (const char* text : {"Event Analyzer terminate", "Analyzer thread joinable",
                             "Analyzer thread finished", "Analyzer join terminate"}) {
        EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, text));
    }
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "CTYEventAnalyzer m_bRequestTerminate..."));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "WAKE UP [0]"));
}

TEST_F(CEventAnalyzerTest, DestructionForwardsWhatIsQueued) {
    {
        CTYEventAnalyzer analyzer(m_Clock);
        analyzer.Initthread(&m_Sender);
        analyzer.Start();
        ASSERT_TRUE(m_Clock.AwaitWaiter(std::chrono::seconds(20)));
        analyzer.InsertData(NewRecord(7));
        analyzer.InsertData(NewRecord(9));
    }
    EXPECT_THAT(ForwardedEvents(), ElementsAre(7, 9));
}

TEST_F(CEventAnalyzerTest, StartAfterTerminationOnlyDrainsTheQueue) {
    m_Analyzer.Start();
    m_Analyzer.RequestTerminate();
    m_Analyzer.InsertData(NewRecord(7));
    m_Analyzer.Start();
    ASSERT_TRUE(m_Platform.WaitForLog("Analyzer thread finished", 2));
    EXPECT_EQ(m_Sender.GetQueueSize(), 1);
    m_Analyzer.Start();
    ASSERT_TRUE(m_Platform.WaitForLog("Analyzer thread finished", 3));
}

TEST_F(CEventAnalyzerTest, RecordsThatNoThreadTakesAreBounded) {
    for (int i = 0; i < 203; ++i) {
        EXPECT_EQ(m_Analyzer.InsertData(NewRecord(7)), i < 200);
    }
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTag, "no analyzer thread, drop event 7"), 1U);
    m_Analyzer.Start();
    m_Analyzer.RequestTerminate();
    EXPECT_EQ(m_Sender.GetQueueSize(), 200);
}

TEST_F(CEventAnalyzerTest, ThreadSleepsForTwentySecondsAndLooksAgain) {
    m_Analyzer.Start();
    ASSERT_TRUE(m_Clock.AwaitWaiter(std::chrono::seconds(20)));
    m_Analyzer.InsertData(NewRecord(7));
    m_Clock.Advance(std::chrono::milliseconds(19999));
    EXPECT_EQ(m_Sender.GetQueueSize(), 0);
    m_Clock.Advance(std::chrono::milliseconds(1));
    ASSERT_TRUE(m_Clock.AwaitWaiter(std::chrono::seconds(20)));
    EXPECT_EQ(m_Sender.GetQueueSize(), 1);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "CTYEventAnalyzer Wake up by timeout ... "));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "CTYEventAnalyzer thread sleep...."), 2U);
}

TEST_F(CEventAnalyzerTest, WokenThreadAnalysesAtOnce) {
    m_Analyzer.Start();
    ASSERT_TRUE(m_Clock.AwaitWaiter(std::chrono::seconds(20)));
    m_Analyzer.InsertData(NewRecord(7));
    // The thread may not be on its condition yet, and a notification is not kept.
    while (!m_Platform.WaitForLog("event 7.", 1, std::chrono::milliseconds(1))) {
        m_Analyzer.WakeUpThread();
    }
    EXPECT_LE(1U, m_Platform.CountLog(LOGSVC_DEBUG, kTag, "CTYEventAnalyzer thread wake up!!"));
}

TEST_F(CEventAnalyzerTest, LifeIsLogged) {
    { CTYEventAnalyzer analyzer(m_Clock); }
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "Create >>"), 2U);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "Destroy >>"));
}

}  // namespace
