// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "Sanitizers.h"

using testing::ContainsRegex;

namespace {

/// Expects a log line, then the failed assertion that ends the process.
class CCollectorFatalTest : public CCollectorTest {
  protected:
    CCollectorFatalTest() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        m_Platform.echo = true;
    }

    static auto Line(const std::string& line) {
        return ContainsRegex("6 " + line + "\n.*Assertion `false' failed");
    }
    static auto NoUrl() {
        return Line(
            "TALLYRA Content URL do not set, so debug mode called assert. release mode "
            "collect data, but this data can not used");
    }
    static auto UrlChanged() { return Line("TALLYRA .EXCUTE. error type : 201"); }
};

TEST_F(CCollectorFatalTest, StartWithoutAUrl) {
    EXPECT_DEATH(Event(TY_EVENT_START), NoUrl());
    EXPECT_DEATH((SetContent("", "Title"), Event(TY_EVENT_START)), NoUrl());
}

TEST_F(CCollectorFatalTest, OtherUrlDuringAPlayback) {
    EXPECT_DEATH((StartPlayback(), SetContent("other.mp4")), UrlChanged());
}

TEST_F(CCollectorFatalTest, TitleThatIsRemovedDuringAPlaybackChangesTheUrl) {
    EXPECT_DEATH((SetContent("http://server/a.ts", "Title"), Event(TY_EVENT_START),
                  SetContent("http://server/a.ts", "")),
                 UrlChanged());
}

TEST_F(CCollectorFatalTest, ClockThatFailsWhileARecordIsDerived) {
    CTYEventAnalyzer analyzer(m_Clock);
    const std::unique_ptr<TYMediaRecord> source(NewRecord(TY_EVENT_STOP));
    m_Clock.FailRealTime(true);
    EXPECT_DEATH(delete analyzer.CopyData(source.get(), TY_EVENT_PLAYING_TIME),
                 Line("TALLYRA clock_gettime failed!!"));
}

class CAllocationFailureTest : public CCollectorFatalTest {
  public:
    void StartPlaybackWithoutMemory() {
        SetContent();
        FailAllocationsFrom(sizeof(TYMediaRecord));
        Event(TY_EVENT_START);
    }

    void ExecuteWithoutMemory() {
        StartPlayback();
        FailAllocationsFrom(sizeof(TYMediaRecord));
        Collector().Execute(100, 0, "");
    }

    void SetContentWithoutMemory() {
        std::string url(100000, 'u');
        CTYContentInfo info(&url, 0);
        CTYDataCollector& collector = Collector();
        FailAllocationsFrom(url.size());
        collector.SetContentInfo(&info);
    }

    void SetTitleWithoutMemory() {
        const std::string title(100000, 't');
        CTYContentInfo info(nullptr, 0);
        FailAllocationsFrom(title.size());
        info.SetTitle(title);
    }

    void MakeCollectorWithoutMemory() {
        FailAllocationsFrom(sizeof(CTYDataCollector));
        GetTYDataCollectorInstance("org.example.app", TY_PLAYER_NATIVE);
    }

    void CopyWithoutMemory() {
        CTYEventAnalyzer analyzer(m_Clock);
        const std::unique_ptr<TYMediaRecord> source(NewRecord(TY_EVENT_STOP));
        FailAllocationsFrom(sizeof(TYMediaRecord));
        delete analyzer.CopyData(source.get(), TY_EVENT_PLAYING_TIME);
    }

    // The first batch is sent; then the sender's thread cannot allocate two images.
    void SendBatchesWithoutMemory() {
        m_Bus.onCall = [](const CFakeBus::Call& call) {
            if (call.Function() == "SendData") {
                FailAllocationsFrom(2 * sizeof(TYMediaData));
            }
        };
        StartPlayback();
        ReportAll(Reports(100, {kFreeEvent}));
        m_pCollector.reset();
    }
};

struct AllocationFailure {
    void (CAllocationFailureTest::*pRun)();
    std::string line = std::string("TALLYRA ") + kNoMemory;
};
using CNoMemoryTest = CTableTest<CAllocationFailureTest, AllocationFailure>;

TEST_P(CNoMemoryTest, EndsTheProcess) {
    if (kUnderThreadSanitizer) {
        GTEST_SKIP() << "the sanitizer does not let a program replace operator new";
    }
    EXPECT_DEATH((this->*Case().pRun)(), Line(Case().line));
}

using Test = CAllocationFailureTest;
const Named<AllocationFailure> kAllocationFailures[] = {
    {"ForTheRecordOfAnEvent", {&Test::StartPlaybackWithoutMemory}},
    {"ForTheRecordOfAnExecute", {&Test::ExecuteWithoutMemory}},
    {"ForAUrl", {&Test::SetContentWithoutMemory}},
    {"ForATextOfTheContentInfo", {&Test::SetTitleWithoutMemory}},
    {"ForADerivedRecord", {&Test::CopyWithoutMemory}},
    {"ForABatch", {&Test::SendBatchesWithoutMemory, std::string("TALLYRA_UTIL ") + kNoMemory}},
    {"ForACollector",
     {&Test::MakeCollectorWithoutMemory,
      "TALLYRA bad_alloc!! Nomore free store space available. error : std::bad_alloc"}},
};
INSTANTIATE_TEST_SUITE_P(Table, CNoMemoryTest, testing::ValuesIn(kAllocationFailures), kByName);

}  // namespace
