// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildProcess.h"
#include "PipelineFixture.h"
#include "Sanitizers.h"

#include <csignal>
#include <future>

using namespace std::chrono_literals;
using receiver::Reply;
using Clock = std::chrono::steady_clock;

namespace {

// The reply timeout, the second between two looks for the service, and what a busy machine takes to
// drop more than a dozen batches.
constexpr auto kBound = 3s + 1s + (kUnderThreadSanitizer ? 4s : 2s);

/// Deletes a collector whose bus or service does not answer.
class CDeletionTest : public CPipelineTest {
  protected:
    ~CDeletionTest() override { m_Bus.Resume(); }

    /// Reports more than a dozen batches.
    void QueueMuch() {
        SetContent();
        Event(TY_EVENT_START);
        Events(500);
    }

    void ExpectBoundedDeletion() {
        const auto begin = Clock::now();
        m_pCollector.reset();
        EXPECT_LT(Clock::now() - begin, kBound);
        EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
        EXPECT_EQ(m_Platform.NetworkMonitors(), 0U);
    }
};

TEST_F(CDeletionTest, IsBoundedWhenTheServiceTakesBatchesAndNeverAnswers) {
    Connect();
    m_pService->SetReply("SendData", Reply::Never());
    QueueMuch();
    ASSERT_TRUE(m_pService->WaitForCalls("SendData", 1, kPatience));
    ExpectBoundedDeletion();
}

TEST_F(CDeletionTest, IsBoundedWhenTheServiceNeverTellsThePolicy) {
    m_pService->SetReply("GetPolicyInfo", Reply::Never());
    StartService();
    MakeCollector();
    ASSERT_TRUE(m_pService->WaitForCalls("GetPolicyInfo", 1, kPatience));
    ExpectBoundedDeletion();
}

TEST_F(CDeletionTest, IsBoundedWhenTheServiceNeverAnswersAnythingWhileTheKeyChanges) {
    Connect();
    m_pService->SetReply("GetPolicyInfo", Reply::Never());
    m_pService->SetReply("SendData", Reply::Never());
    QueueMuch();
    ASSERT_TRUE(m_pService->WaitForCalls("SendData", 1, kPatience));
    const auto change = std::async(std::launch::async, [this] { m_Platform.ChangeKey(1); });
    ASSERT_TRUE(WaitForLog("appID : org.example.app", 2));
    ExpectBoundedDeletion();
}

TEST_F(CDeletionTest, IsBoundedWhileTheKeyThatGoesOffHasTheQueueDelivered) {
    Connect();
    m_pService->SetReply("SendData", Reply::Never());
    QueueMuch();
    const auto change = std::async(std::launch::async, [this] { m_Platform.ChangeKey(0); });
    ASSERT_TRUE(WaitForLog("Sender thread joinable"));
    ExpectBoundedDeletion();
}

TEST_F(CDeletionTest, IsBoundedWhenTheServiceIsHalted) {
    CChildProcess service({RECEIVER, "--address", m_Bus.Address()});
    MakeCollector();
    ASSERT_TRUE(WaitForLog("Sender thread start done"));
    service.Signal(SIGSTOP);
    QueueMuch();
    ExpectBoundedDeletion();
}

TEST_F(CDeletionTest, IsBoundedWhenTheBusIsHaltedWithBatchesUnderWay) {
    Connect();
    m_Bus.Pause();
    QueueMuch();
    ExpectBoundedDeletion();
}

TEST_F(CDeletionTest, IsBoundedWhenTheBusIsHaltedWhileTheServiceIsLookedFor) {
    MakeCollector();
    ASSERT_TRUE(WaitForLog("KICK", 2));
    m_Bus.Pause();
    ASSERT_TRUE(WaitForLog("KICK", 3));
    ExpectBoundedDeletion();
}

TEST_F(CDeletionTest, IsBoundedWhenBusAndServiceGoInTheMidst) {
    Connect();
    m_pService->SetReply("SendData", Reply::Never());
    QueueMuch();
    ASSERT_TRUE(m_pService->WaitForCalls("SendData", 1, kPatience));
    m_Bus.Stop();
    ExpectBoundedDeletion();
}

TEST_F(CDeletionTest, LosesNothingWhenTheServiceAnswers) {
    Connect();
    SetContent();
    Event(TY_EVENT_START);
    Events(150);
    m_pCollector.reset();
    EXPECT_EQ(Arrived().size(), 151U);
    EXPECT_THAT(m_pService->Problems(), testing::IsEmpty());
}

}  // namespace
