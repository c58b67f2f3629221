// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"

#include <chrono>

using receiver::Reply;
using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

namespace {

class CServiceTest : public CPipelineTest {
  protected:
    /// Makes a collector and waits until it has given collection up.
    void ConnectAndStop() {
        StartService();
        MakeCollector();
        ASSERT_TRUE(WaitForLog("drop collected data"));
        ASSERT_TRUE(WaitForLog("Analyzer join terminate"));
    }

    /// Plays, and expects nothing to arrive.
    void ExpectNothingArrives() {
        SetContent();
        Event(TY_EVENT_START);
        m_pCollector.reset();
        EXPECT_THAT(Arrived(), IsEmpty());
    }
};

TEST_F(CServiceTest, PolicyYesCollects) {
    m_pService->SetPolicy(7);
    Connect();
    SetContent();
    Event(TY_EVENT_START);
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), ElementsAre(1));
    EXPECT_EQ(std::get<std::string>(m_pService->Calls("GetPolicyInfo").at(0).values.at(0)),
              "org.example.app");
}

TEST_F(CServiceTest, PolicyNoCollectsNothing) {
    m_pService->SetPolicy(0);
    ConnectAndStop();
    ExpectNothingArrives();
}

TEST_F(CServiceTest, PolicyThatFailsCollectsNothing) {
    m_pService->SetReply("GetPolicyInfo",
                         Reply::WithError("org.example.Error.No", "no policy today"));
    ConnectAndStop();
    EXPECT_EQ(m_Platform.CountLog("CLIENT > Dbus error: no policy today"), 1U);
    ExpectNothingArrives();
}

TEST_F(CServiceTest, KeyThatIsNotOneCollectsNothing) {
    for (const int value : {0, 2}) {
        m_Platform.Reset();
        m_Platform.keyValue = value;
        ConnectAndStop();
        ExpectNothingArrives();
        StopService();
    }
    EXPECT_THAT(m_pService->Calls("GetPolicyInfo"), IsEmpty());
}

TEST_F(CServiceTest, KeyThatChangesEndsCollectionForThisCollector) {
    Connect();
    SetContent();
    Event(TY_EVENT_START);
    m_Platform.ChangeKey(0);
    Event(99);
    m_Platform.ChangeKey(1);
    // Both threads come back only to work off what is queued.
    EXPECT_TRUE(WaitForLog("Analyzer thread finished", 2));
    EXPECT_TRUE(WaitForLog("Sender thread finished", 2));
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), ElementsAre(1));
}

TEST_F(CServiceTest, RecordsWaitForTheServiceAndArriveInOrder) {
    MakeCollector();
    SetContent();
    Event(TY_EVENT_START);
    Events(5);
    ASSERT_TRUE(WaitForLog("KICK", 3));
    StartService();
    ASSERT_TRUE(WaitForLog("Sender thread start done"));
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), ElementsAre(1, 99, 99, 99, 99, 99));
}

TEST_F(CServiceTest, HundredAndFiftyRecordsThatWaitedArriveInOrderInSeveralBatches) {
    MakeCollector();
    SetContent();
    Event(TY_EVENT_START);
    Events(149);
    StartService();
    ASSERT_TRUE(m_pService->WaitForRecords(150, kPatience));
    const auto records = m_pService->Records();
    for (std::size_t i = 1; i < records.size(); ++i) {
        EXPECT_EQ(records[i].record.param1, static_cast<int>(i) - 1);
    }
    for (const auto& call : m_pService->Calls("SendData")) {
        EXPECT_LE(call.values.size(), 72U);
    }
    EXPECT_THAT(m_pService->Problems(), IsEmpty());
}

TEST_F(CServiceTest, TwoHundredAndOneRecordsWithoutAServiceEndCollection) {
    MakeCollector();
    SetContent();
    Event(TY_EVENT_START);
    Events(200);
    ASSERT_TRUE(WaitForLog("Max log count exceed."));
    ASSERT_TRUE(WaitForLog("drop collected data", 2));
    EXPECT_EQ(m_Platform.CountLog("Can't connect to service. Stop logging"), 1U);
    StartService();
    ExpectNothingArrives();
}

TEST_F(CServiceTest, ServiceThatTakesLongerThanTheTimeoutLosesTheBatch) {
    Connect();
    m_pService->SetReply("SendData", Reply::ByRules().After(std::chrono::seconds(4)));
    SetContent();
    Event(TY_EVENT_START);
    const auto begin = Clock::now();
    m_pCollector.reset();
    const auto waited = Clock::now() - begin;
    EXPECT_GE(waited, std::chrono::milliseconds(2900));
    EXPECT_LT(waited, std::chrono::milliseconds(3900));
    EXPECT_EQ(m_Platform.CountLog("SendData failed, data clear"), 1U);
}

TEST_F(CServiceTest, KickThatIsAnsweredLateFailsAfterItsShortTime) {
    m_pService->SetReply("Kick", Reply::ByRules().After(std::chrono::milliseconds(300)));
    Connect();
    ASSERT_TRUE(WaitForLog("service is connected!"));
    EXPECT_GE(m_Platform.CountLog("REPLY IS NULL!"), 1U);
}

TEST_F(CServiceTest, NoBusAtAllIsSurvived) {
    m_Bus.Stop();
    MakeCollector();
    SetContent();
    Event(TY_EVENT_START);
    ASSERT_TRUE(WaitForLog("Connection is not ready. should re-create CDbusClient", 3));
    m_pCollector.reset();
    m_Bus.Restart();
}

TEST_F(CServiceTest, BusThatDiesDuringASessionIsSurvived) {
    Connect();
    SetContent();
    Event(TY_EVENT_START);
    m_Bus.Stop();
    Events(20);
    ASSERT_TRUE(WaitForLog("SendData failed, data clear"));
    m_pCollector.reset();
    m_Bus.Restart();
}

TEST_F(CServiceTest, ServiceThatVanishesLosesBatchesAndGetsTheNextWhenItReturns) {
    Connect();
    SetContent();
    Event(TY_EVENT_START);
    ASSERT_TRUE(WaitForLog("event 1."));
    StopService();
    Events(10);
    ASSERT_TRUE(WaitForLog("SendData failed, data clear"));
    StartService();
    Event(TY_EVENT_STOP);
    EXPECT_TRUE(m_pService->WaitForEvent(20, 1, kPatience));
}

}  // namespace
