// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildProcess.h"
#include "PipelineFixture.h"
#include "Sanitizers.h"
#include "TableTest.h"

using namespace std::chrono_literals;
using receiver::Reply;
using Clock = std::chrono::steady_clock;

namespace {

// The reply timeout, the second between two polls of the service, and the time in which a loaded
// machine drops more than a dozen batches.
constexpr auto kBound = 3s + 1s + (kUnderThreadSanitizer ? 4s : 2s);

/// Deletes a collector whose bus or service does not answer.
class CDeletionTest : public CPipelineTest {
  public:
    ~CDeletionTest() override { m_Bus.Resume(); }

    // The states in which a collector is deleted.
    void ServiceAnswersNoBatch() {
        Connect();
        m_pService->SetReply("SendData", Reply::Never());
        QueueBatches();
        ASSERT_TRUE(m_pService->WaitForCalls("SendData", 1, kPatience));
    }

    void ServiceAnswersNoPolicyRequest() {
        m_pService->SetReply("GetPolicyInfo", Reply::Never());
        StartService();
        MakeCollector();
        ASSERT_TRUE(m_pService->WaitForCalls("GetPolicyInfo", 1, kPatience));
    }

    void ServiceAnswersNothingAndTheKeyChanges() {
        ServiceAnswersNoBatch();
        m_pService->SetReply("GetPolicyInfo", Reply::Never());
        m_Change = std::async(std::launch::async, [this] { m_Platform.ChangeKey(1); });
        ASSERT_TRUE(WaitForLog("appID : org.example.app", 2));
    }

    void KeyGoesOffAndTheQueueIsSent() {
        Connect();
        m_pService->SetReply("SendData", Reply::Never());
        QueueBatches();
        m_Change = std::async(std::launch::async, [this] { m_Platform.ChangeKey(0); });
        ASSERT_TRUE(WaitForLog("Sender thread joinable"));
    }

    void ServiceIsStopped() {
        m_pProcess = std::make_unique<CChildProcess>(
            std::vector<std::string>{RECEIVER, "--address", m_Bus.Address()});
        MakeCollector();
        ASSERT_TRUE(WaitForLog("Sender thread start done"));
        m_pProcess->Signal(SIGSTOP);
        QueueBatches();
    }

    void BusIsStoppedWithBatchesQueued() {
        Connect();
        m_Bus.Pause();
        QueueBatches();
    }

    void BusIsStoppedDuringALookUp() {
        MakeCollector();
        ASSERT_TRUE(WaitForLog("KICK", 2));
        m_Bus.Pause();
        ASSERT_TRUE(WaitForLog("KICK", 3));
    }

    void BusIsEndedDuringABatch() {
        ServiceAnswersNoBatch();
        m_Bus.Stop();
    }

  protected:
    /// Reports more than a dozen batches.
    void QueueBatches() {
        StartPlayback();
        Events(500);
    }

    std::unique_ptr<CChildProcess> m_pProcess;
    std::future<void> m_Change;
};

using Reach = void (CDeletionTest::*)();
using CUnresponsiveTest = CTableTest<CDeletionTest, Reach>;

TEST_P(CUnresponsiveTest, BoundsTheDeletion) {
    ASSERT_NO_FATAL_FAILURE((this->*Case())());
    const auto begin = Clock::now();
    m_pCollector.reset();
    EXPECT_LT(Clock::now() - begin, kBound);
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
    EXPECT_EQ(m_Platform.NetworkMonitors(), 0U);
}

using T = CDeletionTest;
const Named<Reach> kStates[] = {
    {"ServiceAnswersNoBatch", &T::ServiceAnswersNoBatch},
    {"ServiceAnswersNoPolicyRequest", &T::ServiceAnswersNoPolicyRequest},
    {"ServiceAnswersNothingAndTheKeyChanges", &T::ServiceAnswersNothingAndTheKeyChanges},
    {"KeyGoesOffAndTheQueueIsSent", &T::KeyGoesOffAndTheQueueIsSent},
    {"ServiceIsStopped", &T::ServiceIsStopped},
    {"BusIsStoppedWithBatchesQueued", &T::BusIsStoppedWithBatchesQueued},
    {"BusIsStoppedDuringALookUp", &T::BusIsStoppedDuringALookUp},
    {"BusIsEndedDuringABatch", &T::BusIsEndedDuringABatch},
};
INSTANTIATE_TEST_SUITE_P(Table, CUnresponsiveTest, testing::ValuesIn(kStates), kByName);

}  // namespace
