// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYDataSender.h"
#include "TYEventAnalyzer.h"

#include <gmock/gmock.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

using testing::ElementsAre;

namespace {

/// The threads of an analyzer and of the sender that it feeds. A test starts one of them.
class CWorkerTest : public CSeamTest {
  protected:
    CWorkerTest() { m_Analyzer.Initthread(&m_Sender); }
    // What is still queued when a sender goes is never freed.
    ~CWorkerTest() override {
        m_Analyzer.RequestTerminate();
        m_Sender.RequestTerminate();
        m_Sender.ClearCollectedData();
        m_Platform.onLog = nullptr;
    }

    /// Notes the thread that logs a line, each time.
    void NoteThreadsThatLog(const std::string& text) {
        m_Platform.onLog = [this, text](const CPlatformDouble::LogLine& line) {
            if (line.text == text) {
                const std::lock_guard lock(m_Mutex);
                m_Threads.push_back(std::this_thread::get_id());
            }
        };
    }

    std::vector<std::thread::id> Threads() {
        const std::lock_guard lock(m_Mutex);
        return m_Threads;
    }

    /// @return whether a thread sleeps: from now on it hears every notification
    bool Sleeps() { return m_Clock.AwaitWaiter(std::chrono::seconds(20)); }

    CTYDataSender m_Sender{m_Bus, m_Clock};
    CTYEventAnalyzer m_Analyzer{m_Clock};

  private:
    std::mutex m_Mutex;
    std::vector<std::thread::id> m_Threads;
};

TEST_F(CWorkerTest, SecondStartOfTheAnalyzerIsLoggedAndLeavesTheFirstThreadAtWork) {
    NoteThreadsThatLog("event 7.");
    for (std::size_t records = 1; records <= 3; ++records) {
        EXPECT_TRUE(m_Analyzer.Start());
        ASSERT_TRUE(Sleeps());
        m_Analyzer.InsertData(NewRecord(7));
        m_Analyzer.WakeUpThread();
        ASSERT_TRUE(m_Platform.WaitForLog("event 7.", records));
    }
    ASSERT_TRUE(Sleeps());
    EXPECT_EQ(m_Sender.GetQueueSize(), 3);
    EXPECT_EQ(Threads(), std::vector(3, Threads().front()));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, TAG, "wrong!! Thread already start"), 2U);
    EXPECT_TRUE(Logged(LOGSVC_INFO, TAG, "Analyzer thread start done"));
}

TEST_F(CWorkerTest, SecondStartOfTheSenderIsLoggedAndLeavesTheFirstThreadAtWork) {
    NoteThreadsThatLog("result : 1");
    for (std::size_t batches = 1; batches <= 3; ++batches) {
        EXPECT_TRUE(m_Sender.Start());
        ASSERT_TRUE(Sleeps());
        m_Sender.InsertData(NewRecord(7));
        m_Sender.WakeUpThread();
        ASSERT_TRUE(m_Platform.WaitForLog("result : 1", batches));
    }
    ASSERT_TRUE(Sleeps());
    EXPECT_THAT(SentEvents(), ElementsAre(7, 7, 7));
    EXPECT_EQ(Threads(), std::vector(3, Threads().front()));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, TAG_UTIL, "wrong!! Thread already start"), 2U);
    EXPECT_TRUE(Logged(LOGSVC_INFO, TAG_UTIL, "Sender thread start done"));
}

}  // namespace
