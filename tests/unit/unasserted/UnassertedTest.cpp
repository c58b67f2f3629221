// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "ThreadSafeQueue.h"

using testing::Each;

namespace {

/// The library with its assertions compiled out: each failure is logged, and the player continues.
class CUnassertedTest : public CCollectorTest {
  public:
    // What a case does, and what it expects of the records.
    void StartWithoutAUrl() {
        Event(TY_EVENT_START);
        Event(TY_EVENT_RENDER_START);
        EXPECT_EQ(ReportedEvents(), (Reports{{TY_EVENT_START, -1}, {TY_EVENT_RENDER_START}}));
        EXPECT_THAT(SentUrls(), Each(""));
    }

    void ChangeTheUrl() {
        StartPlayback();
        SetContent("other.mp4");
        Event(kFreeEvent);
        EXPECT_EQ(ReportedEvents(), (Reports{{TY_EVENT_START}, {kFreeEvent}}));
        EXPECT_THAT(SentUrls(), Each("film.mp4"));
    }

    void ReportAnEvent() {
        StartPlayback();
        WithoutMemoryFor(sizeof(TYMediaRecord), [this] { Event(TY_EVENT_SEEK); });
        Event(kFreeEvent);
        EXPECT_EQ(ReportedEvents(), (Reports{{TY_EVENT_START}, {kFreeEvent}}));
    }

    void Execute() {
        StartPlayback();
        bool accepted = true;
        WithoutMemoryFor(sizeof(TYMediaRecord),
                         [&] { accepted = Collector().Execute(100, 0, ""); });
        EXPECT_FALSE(accepted);
    }

    void CallTheFactory() {
        WithoutMemoryFor(sizeof(CTYDataCollector), [] {
            EXPECT_EQ(GetTYDataCollectorInstance("org.example.app", TY_PLAYER_NATIVE), nullptr);
        });
    }

  protected:
    /// Runs a function on its own thread, on which allocations of `bytes` or more fail.
    template <class Function>
    static void WithoutMemoryFor(std::size_t bytes, Function function) {
        std::thread([&] {
            FailAllocationsFrom(bytes);
            function();
        }).join();
    }
};

struct Failure {
    void (CUnassertedTest::*pRun)();
    const char* line = kNoMemory;
};
using CUnassertedFailureTest = CTableTest<CUnassertedTest, Failure>;

TEST_P(CUnassertedFailureTest, IsLoggedAndThePlayerContinues) {
    (this->*Case().pRun)();
    EXPECT_TRUE(Error(Case().line));
}

using T = CUnassertedTest;
const Named<Failure> kFailures[] = {
    {"StartWithoutAUrlUsesTheEmptyOne",
     {&T::StartWithoutAUrl,
      "Content URL do not set, so debug mode called assert. release mode collect data, but this "
      "data can not used"}},
    {"OtherUrlDuringAPlaybackIsNotTaken", {&T::ChangeTheUrl, "[EXCUTE] error type : 201"}},
    {"EventWithoutMemoryIsLostAndTheNextIsNot", {&T::ReportAnEvent}},
    {"ExecuteWithoutMemoryIsRefused", {&T::Execute}},
    {"FactoryWithoutMemoryReturnsNull",
     {&T::CallTheFactory, "bad_alloc!! Nomore free store space available. error : std::bad_alloc"}},
};
INSTANTIATE_TEST_SUITE_P(Table, CUnassertedFailureTest, testing::ValuesIn(kFailures), kByName);

TEST_F(CUnassertedTest, SenderWithoutMemoryDropsItsBatchesAndEnds) {
    // The first batch is sent; then the sender's thread cannot allocate two images.
    m_Bus.onCall = [](const CFakeBus::Call& call) {
        if (call.Function() == "SendData") {
            FailAllocationsFrom(2 * sizeof(TYMediaData));
        }
    };
    StartPlayback();
    ReportAll(Reports(100, {kFreeEvent}));
    m_pCollector.reset();
    EXPECT_LT(SentEvents().size(), 101U);
    EXPECT_GE(m_Platform.CountLog(LOGSVC_ERROR, kTagUtil, kNoMemory), 1U);
}

/// An analyzer without a thread, and its sender.
class CUnassertedAnalyzerTest : public CUnassertedTest {
  protected:
    CUnassertedAnalyzerTest() { m_Analyzer.Initthread(&m_Sender); }

    void Analyze(int event, int position) {
        m_Analyzer.InsertData(NewRecord(event, position));
        m_Analyzer.AnalyzeEvent();
    }

    CTYDataSender m_Sender{m_Bus, m_Clock};
    CTYEventAnalyzer m_Analyzer{m_Clock};
};

TEST_F(CUnassertedAnalyzerTest, RecordIsSentAndThePositionForgottenIfThePauseCannotDerive) {
    Analyze(TY_EVENT_PLAYING_TIME, 1000);
    m_Analyzer.InsertData(NewRecord(TY_EVENT_PAUSE, 4000));
    WithoutMemoryFor(sizeof(TYMediaRecord),
                     [&] { EXPECT_THROW(m_Analyzer.AnalyzeEvent(), std::bad_alloc); });
    Analyze(TY_EVENT_STOP, 9000);
    while (m_Sender.GetQueueSize() != 0) {
        m_Sender.SendData();
    }
    EXPECT_EQ(ToReports(SentRecords()), (Reports{{TY_EVENT_PLAYING_TIME, 1000},
                                                 {TY_EVENT_PAUSE, 4000},
                                                 {TY_EVENT_STOP, 9000},
                                                 {TY_EVENT_PLAYING_TIME, 9000}}));
}

TEST(Unasserted, PopOfAnEmptyQueueDoesNothing) {
    CThreadSafeQueue<int*> queue;
    queue.pop();
    EXPECT_EQ(queue.size(), 0U);
}

}  // namespace
