// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Failures that end the process. Without assertions, with which this file is compiled too, each is
// logged and the player continues: what a scenario expects behind its failure holds there.

#include "FailingAllocations.h"
#include "Fixtures.h"
#include "Sanitizers.h"
#include "TYAssert.h"

using testing::ContainsRegex;
using testing::Each;

namespace {

class CFatalTest : public CCollectorTest {
  public:
    void StartWithoutAUrl() {
        Event(TY_EVENT_START);
        Event(TY_EVENT_RENDER_START);
        EXPECT_EQ(ReportedEvents(), (Reports{{TY_EVENT_START, -1}, {TY_EVENT_RENDER_START}}));
        EXPECT_THAT(SentUrls(), Each(""));
    }

    void StartWithAnEmptyUrl() {
        SetContent("", "Title");
        Event(TY_EVENT_START);
        EXPECT_EQ(ReportedEvents(), Reports{{TY_EVENT_START}});
    }

    void ChangeTheUrl() {
        StartPlayback();
        SetContent("other.mp4");
        Event(kFreeEvent);
        EXPECT_EQ(ReportedEvents(), (Reports{{TY_EVENT_START}, {kFreeEvent}}));
        EXPECT_THAT(SentUrls(), Each("film.mp4"));
    }

    void RemoveTheTitle() {
        SetContent("http://server/a.ts", "Title");
        Event(TY_EVENT_START);
        SetContent("http://server/a.ts", "");
        m_pCollector.reset();
        EXPECT_THAT(SentUrls(), Each("http://server/a.ts"));
    }

    void DeriveWithoutAClock() {
        const std::unique_ptr<TYMediaRecord> source(NewRecord(TY_EVENT_STOP));
        source->time = {1, 2};
        m_Clock.FailRealTime(true);
        const std::unique_ptr<TYMediaRecord> copy(
            CTYEventAnalyzer(m_Clock).CopyData(source.get(), TY_EVENT_PLAYING_TIME));
        EXPECT_EQ(copy->time.sec, 0);
        EXPECT_EQ(copy->time.nsec, 0);
    }

    void ReportAnEvent() {
        StartPlayback();
        WithoutMemoryFor(sizeof(TYMediaRecord), [this] { Event(TY_EVENT_SEEK); });
        Event(kFreeEvent);
        EXPECT_EQ(ReportedEvents(), (Reports{{TY_EVENT_START}, {kFreeEvent}}));
    }

    void Execute() {
        StartPlayback();
        bool taken = true;
        WithoutMemoryFor(sizeof(TYMediaRecord), [&] { taken = Collector().Execute(100, 0, ""); });
        EXPECT_FALSE(taken);
    }

    void SetALongUrl() {
        std::string url(100000, 'u');
        CTYContentInfo info(&url, 0);
        Collector();
        WithoutMemoryFor(url.size(), [&] { Collector().SetContentInfo(&info); });
        Collector().SendMediaError(kFreeError);
        EXPECT_EQ(ReportedEvents(), Reports{{kFreeError}});
        EXPECT_THAT(SentUrls(), Each(""));
    }

    void SetALongTitle() {
        const std::string title(100000, 't');
        CTYContentInfo info(nullptr, 0);
        info.SetTitle("old");
        WithoutMemoryFor(title.size(), [&] { info.SetTitle(title); });
        EXPECT_EQ(info.GetTitle(), "old");
    }

    // The record is sent, and the position forgotten.
    void DeriveAtAPause() {
        CTYDataSender sender(m_Bus, m_Clock);
        CTYEventAnalyzer analyzer(m_Clock);
        analyzer.Initthread(&sender);
        for (const auto& [event, position, parameter] : Reports{
                 {TY_EVENT_PLAYING_TIME, 1000}, {TY_EVENT_PAUSE, 4000}, {TY_EVENT_STOP, 9000}}) {
            const bool fails = event == TY_EVENT_PAUSE;
            analyzer.InsertData(NewRecord(event, position));
            WithoutMemoryFor(fails ? sizeof(TYMediaRecord) : SIZE_MAX, [&, fails = fails] {
                bool thrown = false;
                try {
                    analyzer.AnalyzeEvent();
                } catch (const std::bad_alloc&) {
                    thrown = true;
                }
                EXPECT_EQ(thrown, fails);
            });
        }
        sender.SendData();
        EXPECT_EQ(ToReports(SentRecords()), (Reports{{TY_EVENT_PLAYING_TIME, 1000},
                                                     {TY_EVENT_PAUSE, 4000},
                                                     {TY_EVENT_STOP, 9000},
                                                     {TY_EVENT_PLAYING_TIME, 9000}}));
    }

    // The first batch is sent; then the sender's thread cannot allocate two images.
    void SendBatches() {
        m_Bus.onCall = [](const CFakeBus::Call& call) {
            if (call.Function() == "SendData") {
                FailAllocationsFrom(2 * sizeof(TYMediaData));
            }
        };
        StartPlayback();
        ReportAll(Reports(100, {kFreeEvent}));
        m_pCollector.reset();
        EXPECT_LT(SentEvents().size(), 101U);
    }

    void CallTheFactory() {
        WithoutMemoryFor(sizeof(CTYDataCollector), [] {
            EXPECT_EQ(GetTYDataCollectorInstance("org.example.app", TY_PLAYER_NATIVE), nullptr);
        });
    }

  protected:
    CFatalTest() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        m_Platform.echo = TALLYRA_ASSERTIONS;
    }

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
    void (CFatalTest::*pRun)();
    std::string text = kNoMemory;
    const char* tag = kTag;
    /// How many times it is logged without assertions.
    testing::Matcher<std::size_t> times = testing::Eq(1U);
};
using CFailureTest = CTableTest<CFatalTest, Failure>;

TEST_P(CFailureTest, IsLoggedAndEndsTheProcessUnlessAssertionsAreCompiledOut) {
    const auto& [pRun, text, tag, times] = Case();
    if (kUnderThreadSanitizer && text.starts_with("bad_alloc")) {
        GTEST_SKIP() << "the sanitizer does not let a program replace operator new";
    }
    if constexpr (TALLYRA_ASSERTIONS) {
        std::string line = std::string("6 ") + tag + " " + text;
        std::ranges::replace_if(
            line, [](char c) { return c == '[' || c == ']'; }, '.');
        EXPECT_DEATH((this->*pRun)(), ContainsRegex(line + "\n.*Assertion `false' failed"));
    } else {
        (this->*pRun)();
        EXPECT_THAT(m_Platform.CountLog(LOGSVC_ERROR, tag, text), times);
    }
}

using T = CFatalTest;
constexpr const char* kNoUrl =
    "Content URL do not set, so debug mode called assert. release mode collect data, but this data "
    "can not used";
constexpr const char* kUrlChanged = "[EXCUTE] error type : 201";
const Named<Failure> kFailures[] = {
    {"StartWithoutAUrl", {&T::StartWithoutAUrl, kNoUrl}},
    {"StartWithAnEmptyUrl", {&T::StartWithAnEmptyUrl, kNoUrl}},
    {"OtherUrlDuringAPlayback", {&T::ChangeTheUrl, kUrlChanged}},
    {"TitleRemovedDuringAPlaybackChangesTheUrl", {&T::RemoveTheTitle, kUrlChanged}},
    {"DerivedRecordWithoutAClock", {&T::DeriveWithoutAClock, "clock_gettime failed!!"}},
    {"NoMemoryForAnEvent", {&T::ReportAnEvent}},
    {"NoMemoryForAnExecute", {&T::Execute}},
    {"NoMemoryForAUrl", {&T::SetALongUrl}},
    {"NoMemoryForATextOfTheContentInfo", {&T::SetALongTitle}},
    {"NoMemoryForADerivedRecord", {&T::DeriveAtAPause}},
    {"NoMemoryForABatch", {&T::SendBatches, kNoMemory, kTagUtil, testing::Ge(1U)}},
    {"NoMemoryForACollector",
     {&T::CallTheFactory, "bad_alloc!! Nomore free store space available. error : std::bad_alloc"}},
};
INSTANTIATE_TEST_SUITE_P(Table, CFailureTest, testing::ValuesIn(kFailures), kByName);

TEST_F(CFatalTest, PopOfAnEmptyQueue) {
    CThreadSafeQueue<int*> queue;
    if constexpr (TALLYRA_ASSERTIONS) {
        EXPECT_DEATH(queue.pop(),
                     "Assertion `false && \"Trying pop\\(\\) to empty queue. Should check "
                     "queue size\"' failed");
    } else {
        queue.pop();
        EXPECT_EQ(queue.size(), 0U);
    }
}

}  // namespace
