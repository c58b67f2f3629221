// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"

using testing::Each;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

namespace {

/// A bus that fails during a playback. The integration tests have the bus that dies and the one
/// that never existed.
class CBusFaultTest : public CPipelineTest {
  protected:
    CBusFaultTest() {
        Connect();
        SetContent();
        Event(TY_EVENT_START);
    }
    ~CBusFaultTest() override { m_Bus.Resume(); }

    static constexpr const char* kLost = "SendData failed, data clear";
};

TEST_F(CBusFaultTest, HaltedBusCostsEachBatchThreeSecondsAndCarriesItLate) {
    m_Bus.Pause();
    const auto begin = Clock::now();
    Events(10);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(1));
    EXPECT_TRUE(WaitForLog(kLost));
    EXPECT_EQ(m_Platform.CountLog(kNoReply), 1U);
    m_Bus.Resume();
    Events(10);
    m_pCollector.reset();
    EXPECT_EQ(Arrived().size(), 21U);
    EXPECT_EQ(m_Platform.CountLog(kLost), 1U);
    EXPECT_THAT(m_pService->Problems(), IsEmpty());
}

TEST_F(CBusFaultTest, BusThatNeverGoesOnDoesNotKeepACollectorFromGoing) {
    m_Bus.Pause();
    Events(100);
    const auto begin = Clock::now();
    m_pCollector.reset();
    // At most three batches are under way or queued; they share a budget of 3 s.
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(6));
    EXPECT_GE(m_Platform.CountLog(kLost), 1U);
}

TEST_F(CBusFaultTest, RestartedBusServesTheNextCollectorAndNotTheOneBefore) {
    m_Bus.Restart();
    m_pService = std::make_unique<receiver::CReceiver>(m_Bus.Address());
    StartService();
    Events(10);
    EXPECT_TRUE(WaitForLog(kLost));
    EXPECT_GE(m_Platform.CountLog("CLIENT > Dbus error: Connection is closed"), 1U);
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), IsEmpty());
    m_Platform.ClearLog();
    Connect();
    SetContent();
    Event(TY_EVENT_START);
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), Each(TY_EVENT_START));
    EXPECT_EQ(Arrived().size(), 1U);
}

}  // namespace
