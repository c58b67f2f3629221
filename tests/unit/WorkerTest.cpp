// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYEventAnalyzer.h"

namespace {

/// A stage of the pipeline that has a worker.
struct Stage {
    bool isSender;
    const char* tag;
    /// What its log lines begin with.
    std::string thread;
    std::string object;
    const char* terminate;
    /// What the thread logs when it takes a single record, and when it is done with it.
    const char* takes;
    const char* isDone;
    /// An event, and how many records come of one.
    int event;
    std::size_t records;
};

const Named<Stage> kStages[] = {
    {"Analyzer",
     {false, kTag, "Analyzer ", "CTYEventAnalyzer ", "Event Analyzer terminate", "event 7.",
      "event 7.", TY_EVENT_STOP, 2}},
    {"Sender",
     {true, kTagUtil, "Sender ", "CTYDataSender ", "Sender terminate", "Send Queue Size : 1 ",
      "result : 1", TY_EVENT_SEEK, 1}}};

/// An analyzer and the sender that it feeds. A test starts one of them.
class CWorkerTest : public CTableTest<CSenderTest, Stage> {
  protected:
    CWorkerTest() { m_Analyzer->Initthread(m_Sender.get()); }
    ~CWorkerTest() override {
        m_Barrier.Open();
        m_Analyzer.reset();
        m_Sender.reset();
        m_Platform.onLog = nullptr;
    }

    /// Calls an operation that both stages have.
    template <class Operation>
    auto OnStage(Operation operation) {
        return Case().isSender ? operation(m_Sender) : operation(m_Analyzer);
    }
    bool Start() {
        return OnStage([](auto& stage) { return stage->Start(); });
    }
    void Insert(int event = TY_EVENT_RESUME, int param1 = 0) {
        OnStage([&](auto& stage) { stage->InsertData(NewRecord(event, param1)); });
    }
    void Terminate() {
        OnStage([](auto& stage) { stage->RequestTerminate(); });
    }

    // Whether a line of the stage's thread, or of its object, was logged once.
    auto ThreadInfo(const std::string& text) {
        return Logged(LOGSVC_INFO, Case().tag, Case().thread + text);
    }
    auto ObjectDebug(const std::string& text) {
        return Logged(LOGSVC_DEBUG, Case().tag, Case().object + text);
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
        while (!Case().isSender && m_Sender->GetQueueSize() > 0) {
            m_Sender->SendData();
        }
        return SentRecords();
    }

    std::unique_ptr<CTYEventAnalyzer> m_Analyzer = std::make_unique<CTYEventAnalyzer>(m_Clock);
    CBarrier m_Barrier;
    std::vector<std::thread::id> m_Threads;
};
INSTANTIATE_TEST_SUITE_P(Stages, CWorkerTest, testing::ValuesIn(kStages), kByName);

TEST_P(CWorkerTest, SecondStartIsLoggedAndLeavesTheFirstThreadAtWork) {
    AtLine(Case().isDone, [this] { m_Threads.push_back(std::this_thread::get_id()); });
    for (std::size_t records = 1; records <= 3; ++records) {
        EXPECT_TRUE(Start());
        ASSERT_TRUE(Sleeps());
        Insert();
        OnStage([](auto& stage) { stage->WakeUpThread(); });
        ASSERT_TRUE(m_Platform.WaitForLog(Case().isDone, records));
    }
    ASSERT_TRUE(Sleeps());
    EXPECT_EQ(m_Threads, std::vector(3, m_Threads.front()));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, Case().tag, "wrong!! Thread already start"), 2U);
    EXPECT_TRUE(ThreadInfo("thread start done"));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, Case().tag, Case().object + "thread wake up!!"),
              3U);
    EXPECT_EQ(Delivered().size(), 3U);
}

TEST_P(CWorkerTest, SleepsForTwentySecondsThenChecksItsQueue) {
    Start();
    ASSERT_TRUE(Sleeps());
    Insert();
    m_Clock.Advance(std::chrono::milliseconds(19999));
    EXPECT_EQ(Delivered().size(), 0U);
    m_Clock.Advance(std::chrono::milliseconds(1));
    ASSERT_TRUE(Sleeps());
    EXPECT_EQ(Delivered().size(), 1U);
    EXPECT_TRUE(ObjectDebug("Wake up by timeout ... "));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, Case().tag, Case().object + "thread sleep...."),
              2U);
}

TEST_P(CWorkerTest, TerminationBeforeAnyStartIsLoggedAndAllowsTheStart) {
    Terminate();
    EXPECT_TRUE(Logged(LOGSVC_INFO, Case().tag, Case().terminate));
    EXPECT_TRUE(ThreadInfo("join terminate"));
    EXPECT_TRUE(NotLogged(Case().thread + "thread joinable"));
    Start();
    EXPECT_TRUE(Sleeps());
}

TEST_P(CWorkerTest, TerminationWakesASleepingThreadAndLogsEachStep) {
    Start();
    ASSERT_TRUE(Sleeps());
    Terminate();
    EXPECT_TRUE(Logged(LOGSVC_INFO, Case().tag, Case().terminate));
    for (const char* text : {"thread joinable", "thread finished", "join terminate"}) {
        EXPECT_TRUE(ThreadInfo(text));
    }
    EXPECT_TRUE(ObjectDebug("m_bRequestTerminate..."));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, Case().tag, "WAKE UP [0]"));
}

TEST_P(CWorkerTest, TerminationDeliversTheFiftyThatWaitBeforeItReturns) {
    AtLine(Case().takes, [this] { m_Barrier.Pass(); });
    Insert();
    Start();
    ASSERT_TRUE(m_Barrier.AwaitThread());
    for (int i = 0; i < 50; ++i) {
        Insert(Case().event, i);
    }
    auto termination = std::async(std::launch::async, [this] { Terminate(); });
    ASSERT_TRUE(m_Platform.WaitForLog(Case().thread + "thread joinable"));
    EXPECT_EQ(termination.wait_for(kShortWhile), std::future_status::timeout);
    EXPECT_EQ(Delivered().size(), 0U);
    m_Barrier.Open();
    ASSERT_EQ(termination.wait_for(kPatience), std::future_status::ready);
    const auto records = Delivered();
    ASSERT_EQ(records.size(), 1 + 50 * Case().records);
    for (std::size_t i = 0; i < 50; ++i) {
        const auto* pRecords = &records[1 + i * Case().records];
        EXPECT_EQ(ToReports({*pRecords}), (Reports{{Case().event, static_cast<int>(i)}}));
        EXPECT_TRUE(Case().isSender || pRecords[1].event == TY_EVENT_PLAYING_TIME);
    }
}

TEST_P(CWorkerTest, StartAfterTerminationOnlyDrainsTheQueue) {
    Start();
    Terminate();
    Insert();
    for (const std::size_t finished : {2U, 3U}) {
        Start();
        ASSERT_TRUE(m_Platform.WaitForLog(Case().thread + "thread finished", finished));
    }
    EXPECT_EQ(Delivered().size(), 1U);
}

TEST_P(CWorkerTest, DestructionDeliversWhatIsQueued) {
    Start();
    ASSERT_TRUE(Sleeps());
    Insert();
    Insert();
    EXPECT_TRUE(NotLogged("Destroy >>"));
    OnStage([](auto& stage) { stage.reset(); });
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, Case().tag, "Destroy >>"));
    EXPECT_EQ(Case().isSender ? SentRecords().size() : Delivered().size(), 2U);
}

}  // namespace
