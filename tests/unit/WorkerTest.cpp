// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYDataSender.h"
#include "TYEventAnalyzer.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using testing::ElementsAre;

namespace {

/// How long something that must not happen gets to happen. A slow machine makes such a test blind,
/// never red.
constexpr std::chrono::milliseconds kShortWhile{100};

constexpr std::chrono::seconds kPatience{30};

/// The threads of an analyzer and of the sender that it feeds. A test starts one of them.
class CWorkerTest : public CSeamTest {
  protected:
    CWorkerTest() { m_Analyzer.Initthread(&m_Sender); }
    // What is still queued when a sender goes is never freed.
    ~CWorkerTest() override {
        Release();
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

    /// Has the first thread that logs a line stay there until Release.
    void HoldAt(const std::string& text) {
        m_Platform.onLog = [this, text](const CPlatformDouble::LogLine& line) {
            if (line.text == text && !m_bHeld.exchange(true)) {
                m_Entered.set_value();
                m_Leave.get_future().wait_for(kPatience);
            }
        };
    }

    bool IsHeld() {
        return m_Entered.get_future().wait_for(kPatience) == std::future_status::ready;
    }

    void Release() {
        if (!std::exchange(m_bReleased, true)) {
            m_Leave.set_value();
        }
    }

    /// @return whether a thread sleeps: from now on it hears every notification
    bool Sleeps() { return m_Clock.AwaitWaiter(std::chrono::seconds(20)); }

    std::future<void> TerminateAnalyzer() {
        return std::async(std::launch::async, [this] { m_Analyzer.RequestTerminate(); });
    }

    std::future<void> TerminateSender() {
        return std::async(std::launch::async, [this] { m_Sender.RequestTerminate(); });
    }

    /// @return what the analyzer has forwarded by now
    std::vector<TYMediaData> Forwarded() {
        while (m_Sender.GetQueueSize() > 0) {
            m_Sender.SendData();
        }
        return SentRecords();
    }

    static bool IsOver(const std::future<void>& action, std::chrono::milliseconds within) {
        return action.wait_for(within) == std::future_status::ready;
    }

    CTYDataSender m_Sender{m_Bus, m_Clock};
    CTYEventAnalyzer m_Analyzer{m_Clock};

  private:
    std::mutex m_Mutex;
    std::vector<std::thread::id> m_Threads;
    std::atomic<bool> m_bHeld = false;
    bool m_bReleased = false;
    std::promise<void> m_Entered;
    std::promise<void> m_Leave;
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
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTag, "wrong!! Thread already start"), 2U);
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "Analyzer thread start done"));
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
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTagUtil, "wrong!! Thread already start"), 2U);
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTagUtil, "Sender thread start done"));
}

TEST_F(CWorkerTest, TerminationForwardsTheFiftyThatWaitAndTheirDerivedOnesBeforeItReturns) {
    HoldAt("event 7.");
    m_Analyzer.InsertData(NewRecord(7));
    m_Analyzer.Start();
    ASSERT_TRUE(IsHeld());
    for (int i = 0; i < 50; ++i) {
        m_Analyzer.InsertData(NewRecord(2, i));
    }
    auto termination = TerminateAnalyzer();
    ASSERT_TRUE(m_Platform.WaitForLog("Analyzer thread joinable"));
    EXPECT_FALSE(IsOver(termination, kShortWhile));
    EXPECT_EQ(m_Sender.GetQueueSize(), 0);
    Release();
    ASSERT_TRUE(IsOver(termination, kPatience));
    const auto records = Forwarded();
    ASSERT_EQ(records.size(), 101U);
    for (std::size_t i = 0; i < 50; ++i) {
        EXPECT_EQ(records[2 * i + 1].event, 2);
        EXPECT_EQ(records[2 * i + 1].param1, static_cast<int>(i));
        EXPECT_EQ(records[2 * i + 2].event, 20);
    }
}

TEST_F(CWorkerTest, TerminationHandsTheProxyTheFiftyThatWaitBeforeItReturns) {
    HoldAt("Send Queue Size : 1 ");
    m_Sender.InsertData(NewRecord(7));
    m_Sender.Start();
    ASSERT_TRUE(IsHeld());
    for (int i = 0; i < 50; ++i) {
        m_Sender.InsertData(NewRecord(9, i));
    }
    auto termination = TerminateSender();
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread joinable"));
    EXPECT_FALSE(IsOver(termination, kShortWhile));
    EXPECT_EQ(SentRecords().size(), 0U);
    Release();
    ASSERT_TRUE(IsOver(termination, kPatience));
    const auto records = SentRecords();
    ASSERT_EQ(records.size(), 51U);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(records[static_cast<std::size_t>(i) + 1].param1, i);
    }
}

}  // namespace
