// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "SenderFixture.h"
#include "TYEventAnalyzer.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

/// A stage of the pipeline that has a worker.
struct Stage {
    bool isSender;
    const char* tag;
    const char* started;
    /// What the thread logs when it takes a single record, and when it is done with it.
    const char* takes;
    const char* isDone;
    const char* joinable;
    /// An event, and how many records come of one.
    int event;
    std::size_t records;
};

constexpr Stage kStages[] = {{false, kTag, "Analyzer thread start done", "event 7.", "event 7.",
                              "Analyzer thread joinable", TY_EVENT_STOP, 2},
                             {true, kTagUtil, "Sender thread start done", "Send Queue Size : 1 ",
                              "result : 1", "Sender thread joinable", TY_EVENT_SEEK, 1}};

void PrintTo(const Stage& stage, std::ostream* pOut) {
    *pOut << stage.started;
}

/// An analyzer and the sender that it feeds. A test starts one of them.
class CWorkerTest : public CSenderTest, public testing::WithParamInterface<Stage> {
  protected:
    CWorkerTest() { m_Analyzer.Initthread(m_Sender.get()); }
    ~CWorkerTest() override {
        Release();
        m_Analyzer.RequestTerminate();
        m_Sender->RequestTerminate();
        m_Platform.onLog = nullptr;
    }

    /// Calls an operation that both stages have.
    template <class Operation>
    auto OnStage(Operation operation) {
        return GetParam().isSender ? operation(*m_Sender) : operation(m_Analyzer);
    }
    bool Start() {
        return OnStage([](auto& stage) { return stage.Start(); });
    }
    void Insert(int event, int param1 = 0) {
        OnStage([&](auto& stage) { stage.InsertData(NewRecord(event, param1)); });
    }
    void WakeUp() {
        OnStage([](auto& stage) { stage.WakeUpThread(); });
    }
    std::future<void> Terminate() {
        return std::async(std::launch::async,
                          [this] { OnStage([](auto& stage) { stage.RequestTerminate(); }); });
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

    /// Holds the first thread that logs a line there until Release.
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

    /// @return what the stage has delivered by now
    std::vector<TYMediaData> Delivered() {
        while (!GetParam().isSender && m_Sender->GetQueueSize() > 0) {
            m_Sender->SendData();
        }
        return SentRecords();
    }

    static bool IsOver(const std::future<void>& action, std::chrono::milliseconds within) {
        return action.wait_for(within) == std::future_status::ready;
    }

    CTYEventAnalyzer m_Analyzer{m_Clock};

  private:
    std::mutex m_Mutex;
    std::vector<std::thread::id> m_Threads;
    std::atomic<bool> m_bHeld = false;
    bool m_bReleased = false;
    std::promise<void> m_Entered;
    std::promise<void> m_Leave;
};

TEST_P(CWorkerTest, SecondStartIsLoggedAndLeavesTheFirstThreadAtWork) {
    NoteThreadsThatLog(GetParam().isDone);
    for (std::size_t records = 1; records <= 3; ++records) {
        EXPECT_TRUE(Start());
        ASSERT_TRUE(Sleeps());
        Insert(TY_EVENT_RESUME);
        WakeUp();
        ASSERT_TRUE(m_Platform.WaitForLog(GetParam().isDone, records));
    }
    ASSERT_TRUE(Sleeps());
    EXPECT_EQ(Threads(), std::vector(3, Threads().front()));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, GetParam().tag, "wrong!! Thread already start"),
              2U);
    EXPECT_TRUE(Logged(LOGSVC_INFO, GetParam().tag, GetParam().started));
    EXPECT_EQ(Delivered().size(), 3U);
}

TEST_P(CWorkerTest, TerminationDeliversTheFiftyThatWaitBeforeItReturns) {
    HoldAt(GetParam().takes);
    Insert(TY_EVENT_RESUME);
    Start();
    ASSERT_TRUE(IsHeld());
    for (int i = 0; i < 50; ++i) {
        Insert(GetParam().event, i);
    }
    auto termination = Terminate();
    ASSERT_TRUE(m_Platform.WaitForLog(GetParam().joinable));
    EXPECT_FALSE(IsOver(termination, kShortWhile));
    EXPECT_EQ(Delivered().size(), 0U);
    Release();
    ASSERT_TRUE(IsOver(termination, kPatience));
    const auto records = Delivered();
    ASSERT_EQ(records.size(), 1 + 50 * GetParam().records);
    for (std::size_t i = 0; i < 50; ++i) {
        const auto* pRecords = &records[1 + i * GetParam().records];
        EXPECT_EQ(pRecords->event, GetParam().event);
        EXPECT_EQ(pRecords->param1, static_cast<int>(i));
        EXPECT_TRUE(GetParam().isSender || pRecords[1].event == TY_EVENT_PLAYING_TIME);
    }
}

INSTANTIATE_TEST_SUITE_P(Stages, CWorkerTest, testing::ValuesIn(kStages), [](const auto& stage) {
    return stage.param.isSender ? "Sender" : "Analyzer";
});

}  // namespace
