// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "AllocationLimit.h"
#include "CollectorFixture.h"
#include "Sanitizers.h"

#include <gmock/gmock.h>

using testing::ContainsRegex;

namespace {

constexpr const char* kNoMemory =
    "6 TALLYRA bad_alloc!! No more free store space available. error : std::bad_alloc\n"
    ".*Assertion `false' failed";

constexpr const char* kNoMemoryToSend =
    "6 TALLYRA_UTIL bad_alloc!! No more free store space available. error : std::bad_alloc\n"
    ".*Assertion `false' failed";

/// What the library says before it ends the process: a line of the log, then the assertion.
class CCollectorFatalTest : public CCollectorTest {
  protected:
    CCollectorFatalTest() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        m_Platform.echo = true;
    }

    static constexpr const char* kNoUrl =
        "6 TALLYRA Content URL do not set, so debug mode called assert. release mode collect data, "
        "but this data can not used\n.*Assertion `false' failed";
    static constexpr const char* kUrlChanged =
        "6 TALLYRA .EXCUTE. error type : 201\n.*Assertion `false' failed";
};

class CNoMemoryTest : public CCollectorFatalTest {
  protected:
    void SetUp() override {
        if (kUnderThreadSanitizer) {
            GTEST_SKIP() << "the sanitizer keeps operator new to itself";
        }
    }

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
        const std::unique_ptr<TYMediaRecord> source(NewRecord(2));
        FailAllocationsFrom(sizeof(TYMediaRecord));
        delete analyzer.CopyData(source.get(), 20);
    }

    // The first batch is taken; from then on the sender's thread finds no memory for two images.
    void SendBatchesWithoutMemory() {
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
    }
};

TEST_F(CCollectorFatalTest, StartWithoutContentSaysThatTheUrlIsMissing) {
    EXPECT_DEATH(Event(TY_EVENT_START), ContainsRegex(kNoUrl));
}

TEST_F(CCollectorFatalTest, StartWithAnEmptyUrlSaysThatTheUrlIsMissing) {
    EXPECT_DEATH((SetContent("", "Title"), Event(TY_EVENT_START)), ContainsRegex(kNoUrl));
}

TEST_F(CCollectorFatalTest, OtherUrlDuringAPlaybackIsErrorTwoHundredAndOne) {
    EXPECT_DEATH((StartPlayback(), SetContent("other.mp4")), ContainsRegex(kUrlChanged));
}

TEST_F(CCollectorFatalTest, LostTitleDuringAPlaybackMakesAnotherUrl) {
    EXPECT_DEATH((SetContent("http://server/a.ts", "Title"), Event(TY_EVENT_START),
                  SetContent("http://server/a.ts", "")),
                 ContainsRegex(kUrlChanged));
}

TEST_F(CNoMemoryTest, EventWithoutMemoryForItsRecord) {
    EXPECT_DEATH(StartPlaybackWithoutMemory(), ContainsRegex(kNoMemory));
}

TEST_F(CNoMemoryTest, ExecuteWithoutMemoryForItsRecord) {
    EXPECT_DEATH(ExecuteWithoutMemory(), ContainsRegex(kNoMemory));
}

TEST_F(CNoMemoryTest, ContentWithoutMemoryForItsUrl) {
    EXPECT_DEATH(SetContentWithoutMemory(), ContainsRegex(kNoMemory));
}

TEST_F(CNoMemoryTest, ContentInfoWithoutMemoryForAText) {
    EXPECT_DEATH(SetTitleWithoutMemory(), ContainsRegex(kNoMemory));
}

TEST_F(CNoMemoryTest, SenderWithoutMemoryForABatch) {
    EXPECT_DEATH(SendBatchesWithoutMemory(), ContainsRegex(kNoMemoryToSend));
}

TEST_F(CNoMemoryTest, AnalyzerWithoutMemoryForACopy) {
    EXPECT_DEATH(CopyWithoutMemory(), ContainsRegex(kNoMemory));
}

TEST_F(CNoMemoryTest, FactoryWithoutMemoryForACollector) {
    EXPECT_DEATH(MakeCollectorWithoutMemory(),
                 ContainsRegex("6 TALLYRA bad_alloc!! Nomore free store space available. error : "
                               "std::bad_alloc\n.*Assertion `false' failed"));
}

}  // namespace
