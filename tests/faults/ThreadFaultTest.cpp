// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "UnfreedByDesign.h"
#include "integration/PipelineFixture.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>

using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

namespace {

/// Has the system give no thread any more: none has room for the stack that it asks for.
class CNoThreads {
  public:
    CNoThreads() {
        pthread_getattr_default_np(&m_Before);
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        pthread_attr_setstacksize(&huge, SIZE_MAX / 4);
        pthread_setattr_default_np(&huge);
        pthread_attr_destroy(&huge);
    }
    ~CNoThreads() {
        pthread_setattr_default_np(&m_Before);
        pthread_attr_destroy(&m_Before);
    }
    CNoThreads(const CNoThreads&) = delete;
    CNoThreads& operator=(const CNoThreads&) = delete;

  private:
    pthread_attr_t m_Before{};
};

/// A system that gives no thread at a certain moment.
class CThreadFaultTest : public CPipelineTest {
  protected:
    ~CThreadFaultTest() override { m_Platform.onLog = nullptr; }

    /// Has no thread be given from the first time of a log line on to the line about it.
    void NoThreadBehind(const std::string& line) {
        m_Platform.onLog = [this, line](const CPlatformDouble::LogLine& logged) {
            if (logged.text == line && !m_bCame.exchange(true)) {
                m_NoThreads = std::make_unique<CNoThreads>();
            } else if (logged.text.starts_with("can't start a thread.")) {
                m_NoThreads.reset();
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

    std::atomic<bool> m_bCame{false};
    std::unique_ptr<CNoThreads> m_NoThreads;
};

TEST_F(CThreadFaultTest, WithoutAnAnalyzerNothingIsCollected) {
    NoThreadBehind("CTYDataCollector Create >>");
    Connect();
    {
        // Nobody takes these records, and they stay when the collector goes.
        const CUnfreedByDesign unfreed;
        Play();
    }
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, "TALLYRA", kNoThread), 1U);
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), IsEmpty());
}

TEST_F(CThreadFaultTest, WithoutAConnectionCheckItIsAsIfThereWereNoService) {
    NoThreadBehind("Analyzer thread start done");
    StartService();
    MakeCollector();
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, "TALLYRA", kNoThread), 1U);
    EXPECT_EQ(m_Platform.CountLog("Can't connect to service. Stop logging"), 1U);
    Play();
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), IsEmpty());
}

TEST_F(CThreadFaultTest, WithoutASenderCollectionIsSwitchedOff) {
    NoThreadBehind("result : 1, pInfo : 1 ");
    StartService();
    MakeCollector();
    EXPECT_TRUE(WaitForLog("drop collected data"));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, "TALLYRA", kNoThread), 1U);
    Play();
    EXPECT_TRUE(WaitForLog("m_isDataCollectOn : [0]"));
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), IsEmpty());
}

TEST_F(CThreadFaultTest, WithoutAWakerDeletionEndsAllTheSameAndNothingIsLost) {
    NoThreadBehind("Event Analyzer terminate");
    Connect();
    Play();
    const auto begin = Clock::now();
    m_pCollector.reset();
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(25));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, "TALLYRA", kNoThread), 1U);
    EXPECT_THAT(Arrived(), ElementsAre(1, 99, 99, 99, 99, 99));
}

}  // namespace
