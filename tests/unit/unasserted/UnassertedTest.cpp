// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "AllocationLimit.h"
#include "CollectorFixture.h"
#include "ThreadSafeQueue.h"

#include <gmock/gmock.h>

#include <thread>

using testing::ElementsAre;

namespace {

/// The library as an integrator builds it who turns its assertions off: each failure is logged, and
/// the player goes on.
class CUnassertedTest : public CCollectorTest {
  protected:
    /// Runs on a thread of its own, which finds no memory for `bytes` or more.
    template <class Function>
    static void WithoutMemoryFor(std::size_t bytes, Function function) {
        std::thread([&] {
            FailAllocationsFrom(bytes);
            function();
        }).join();
    }

    static constexpr const char* kNoMemory =
        "bad_alloc!! No more free store space available. error : std::bad_alloc";
};

TEST_F(CUnassertedTest, StartWithoutAUrlGoesOnWithTheEmptyOne) {
    Event(TY_EVENT_START);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag,
                       "Content URL do not set, so debug mode called assert. release mode collect "
                       "data, but this data can not used"));
    Event(TY_EVENT_RENDER_START);
    m_pCollector.reset();
    EXPECT_THAT(SentEvents(), ElementsAre(1, 6, 21));
    EXPECT_THAT(SentUrls(), ElementsAre("", "", ""));
}

TEST_F(CUnassertedTest, OtherUrlDuringAPlaybackIsNotTaken) {
    StartPlayback();
    SetContent("other.mp4");
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "[EXCUTE] error type : 201"));
    Event(99);
    m_pCollector.reset();
    EXPECT_THAT(SentUrls(), ElementsAre("film.mp4", "film.mp4"));
}

TEST_F(CUnassertedTest, EventWithoutMemoryIsLostAndTheNextIsNot) {
    StartPlayback();
    WithoutMemoryFor(sizeof(TYMediaRecord), [this] { Event(98); });
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, kNoMemory));
    Event(99);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "99 0 0"));
}

TEST_F(CUnassertedTest, ExecuteWithoutMemoryIsRefused) {
    StartPlayback();
    bool accepted = true;
    WithoutMemoryFor(sizeof(TYMediaRecord), [&] { accepted = Collector().Execute(100, 0, ""); });
    EXPECT_FALSE(accepted);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, kNoMemory));
}

TEST_F(CUnassertedTest, FactoryWithoutMemoryGivesNoCollector) {
    WithoutMemoryFor(sizeof(CTYDataCollector), [] {
        EXPECT_EQ(GetTYDataCollectorInstance("org.example.app", TY_PLAYER_NATIVE), nullptr);
    });
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag,
                       "bad_alloc!! Nomore free store space available. error : std::bad_alloc"));
}

TEST_F(CUnassertedTest, SenderThatNeverGetsMemoryAgainDropsItsBatchesAndEnds) {
    // The first batch is taken; from then on the sender's thread finds no memory for two images.
    m_Bus.onCall = [](const CFakeBus::Call& call) {
        if (call.Function() == "SendData") {
            FailAllocationsFrom(2 * sizeof(TYMediaData));
        }
    };
    StartPlayback();
    for (int i = 0; i < 100; ++i) {
        Event(99, i);
    }
    m_pCollector.reset();
    EXPECT_LT(SentEvents().size(), 101U);
    EXPECT_GE(m_Platform.CountLog(LOGSVC_ERROR, kTagUtil, kNoMemory), 1U);
}

/// An analyzer without a thread, and the sender that it passes records on to.
class CUnassertedAnalyzerTest : public CUnassertedTest {
  protected:
    CUnassertedAnalyzerTest() { m_Analyzer.Initthread(&m_Sender); }

    CTYDataSender m_Sender{m_Bus, m_Clock};
    CTYEventAnalyzer m_Analyzer{m_Clock};
};

TEST_F(CUnassertedAnalyzerTest, RecordIsSentAlsoWhenDerivingFromItFails) {
    m_Analyzer.InsertData(NewRecord(TY_EVENT_STOP));
    WithoutMemoryFor(sizeof(TYMediaRecord),
                     [&] { EXPECT_THROW(m_Analyzer.AnalyzeEvent(), std::bad_alloc); });
    EXPECT_EQ(m_Sender.GetQueueSize(), 1);
    m_Sender.ClearCollectedData();
}

TEST_F(CUnassertedAnalyzerTest, PauseWhoseDerivedRecordFindsNoMemoryStillForgetsThePosition) {
    m_Analyzer.InsertData(NewRecord(TY_EVENT_PLAYING_TIME, 1000));
    m_Analyzer.AnalyzeEvent();
    m_Analyzer.InsertData(NewRecord(TY_EVENT_PAUSE, 4000));
    WithoutMemoryFor(sizeof(TYMediaRecord),
                     [&] { EXPECT_THROW(m_Analyzer.AnalyzeEvent(), std::bad_alloc); });
    m_Analyzer.InsertData(NewRecord(TY_EVENT_STOP, 9000));
    m_Analyzer.AnalyzeEvent();
    EXPECT_EQ(m_Sender.GetQueueSize(), 4);
    while (m_Sender.GetQueueSize() != 0) {
        m_Sender.SendData();
    }
    EXPECT_EQ(SentRecords().back().param2, 0);
}

TEST_F(CUnassertedTest, PoppingAnEmptyQueueDoesNothing) {
    CThreadSafeQueue<int*> queue;
    queue.pop();
    EXPECT_EQ(queue.size(), 0U);
}

}  // namespace
