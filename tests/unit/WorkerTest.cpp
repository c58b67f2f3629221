// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYEventAnalyzer.h"

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
        m_Barrier.Open();
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

    /// Calls an action on each thread that logs a line.
    template <class Action>
    void AtLine(const std::string& text, Action action) {
        m_Platform.onLog = [text, action](const CPlatformDouble::LogLine& line) {
            if (line.text == text) {
                action();
            }
        };
    }

    /// @return what the stage has delivered by now
    std::vector<TYMediaData> Delivered() {
        while (!GetParam().isSender && m_Sender->GetQueueSize() > 0) {
            m_Sender->SendData();
        }
        return SentRecords();
    }

    CTYEventAnalyzer m_Analyzer{m_Clock};
    CBarrier m_Barrier;
    std::vector<std::thread::id> m_Threads;
};

TEST_P(CWorkerTest, SecondStartIsLoggedAndLeavesTheFirstThreadAtWork) {
    AtLine(GetParam().isDone, [this] { m_Threads.push_back(std::this_thread::get_id()); });
    for (std::size_t records = 1; records <= 3; ++records) {
        EXPECT_TRUE(Start());
        ASSERT_TRUE(Sleeps());
        Insert(TY_EVENT_RESUME);
        WakeUp();
        ASSERT_TRUE(m_Platform.WaitForLog(GetParam().isDone, records));
    }
    ASSERT_TRUE(Sleeps());
    EXPECT_EQ(m_Threads, std::vector(3, m_Threads.front()));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, GetParam().tag, "wrong!! Thread already start"),
              2U);
    EXPECT_TRUE(Logged(LOGSVC_INFO, GetParam().tag, GetParam().started));
    EXPECT_EQ(Delivered().size(), 3U);
}

TEST_P(CWorkerTest, TerminationDeliversTheFiftyThatWaitBeforeItReturns) {
    AtLine(GetParam().takes, [this] { m_Barrier.Pass(); });
    Insert(TY_EVENT_RESUME);
    Start();
    ASSERT_TRUE(m_Barrier.AwaitThread());
    for (int i = 0; i < 50; ++i) {
        Insert(GetParam().event, i);
    }
    auto termination = Terminate();
    ASSERT_TRUE(m_Platform.WaitForLog(GetParam().joinable));
    EXPECT_EQ(termination.wait_for(kShortWhile), std::future_status::timeout);
    EXPECT_EQ(Delivered().size(), 0U);
    m_Barrier.Open();
    ASSERT_EQ(termination.wait_for(kPatience), std::future_status::ready);
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
