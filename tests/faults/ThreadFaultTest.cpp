// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"
#include "RefusedThreads.h"
#include "UnfreedByDesign.h"

#include <atomic>

using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

namespace {

/// A system that refuses a thread at a certain moment.
class CThreadFaultTest : public CPipelineTest {
  protected:
    ~CThreadFaultTest() override {
        m_Platform.onLog = nullptr;
        RefuseThreads(false);
    }

    /// Refuses threads from the first log line with that text until the library logs a refused
    /// thread.
    void RefuseThreadAfter(const std::string& line) {
        m_Platform.onLog = [this, line](const CPlatformDouble::LogLine& logged) {
            if (logged.text == line && !m_bLogged.exchange(true)) {
                RefuseThreads(true);
            } else if (logged.text.starts_with("can't start a thread.")) {
                RefuseThreads(false);
            }
        };
    }

    void Play() {
        SetContent();
        Event(TY_EVENT_START);
        Events(5);
    }

    static constexpr const char* kNoThread =
        "can't start a thread. error : Resource temporarily unavailable";

    std::atomic<bool> m_bLogged{false};
};

TEST_F(CThreadFaultTest, WithoutAnAnalyzerNothingIsCollected) {
    RefuseThreadAfter("CTYDataCollector Create >>");
    Connect();
    {
        // No thread takes these records, and deleting the collector does not free them.
        const CUnfreedByDesign unfreed;
        Play();
    }
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, "TALLYRA", kNoThread), 1U);
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), IsEmpty());
}

TEST_F(CThreadFaultTest, WithoutAConnectionCheckTheServiceCountsAsUnreachable) {
    RefuseThreadAfter("Analyzer thread start done");
    StartService();
    MakeCollector();
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, "TALLYRA", kNoThread), 1U);
    EXPECT_EQ(m_Platform.CountLog("Can't connect to service. Stop logging"), 1U);
    Play();
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), IsEmpty());
}

TEST_F(CThreadFaultTest, WithoutASenderCollectionIsSwitchedOff) {
    RefuseThreadAfter("result : 1, pInfo : 1 ");
    StartService();
    MakeCollector();
    EXPECT_TRUE(WaitForLog("drop collected data"));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, "TALLYRA", kNoThread), 1U);
    Play();
    EXPECT_TRUE(WaitForLog("m_isDataCollectOn : [0]"));
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), IsEmpty());
}

TEST_F(CThreadFaultTest, WithoutAWakerDeletionEndsAndNothingIsLost) {
    RefuseThreadAfter("Event Analyzer terminate");
    Connect();
    Play();
    const auto begin = Clock::now();
    m_pCollector.reset();
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(25));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, "TALLYRA", kNoThread), 1U);
    EXPECT_THAT(Arrived(), ElementsAre(TY_EVENT_START, 99, 99, 99, 99, 99));
}

}  // namespace
