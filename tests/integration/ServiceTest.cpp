// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"

using receiver::Reply;
using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

namespace {

class CServiceTest : public CPipelineTest {};

TEST_F(CServiceTest, PolicyIsAskedForTheApplicationAndCollects) {
    m_pService->SetPolicy(7);
    Connect();
    StartPlayback();
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), ElementsAre(TY_EVENT_START));
    EXPECT_EQ(std::get<std::string>(m_pService->Calls("GetPolicyInfo").at(0).values.at(0)),
              "org.example.app");
}

TEST_F(CServiceTest, PolicyOfZeroOrAnErrorCollectsNothing) {
    for (const Reply& reply : {Reply::ByRules(), Reply::WithError("org.example.Error.No", "no")}) {
        m_Platform.ClearLog();
        m_pService->SetPolicy(0);
        m_pService->SetReply("GetPolicyInfo", reply);
        StartService();
        MakeCollector();
        ASSERT_TRUE(WaitForLog("drop collected data"));
        ASSERT_TRUE(WaitForLog("Analyzer join terminate"));
        StartPlayback();
        m_pCollector.reset();
        EXPECT_THAT(Arrived(), IsEmpty());
        StopService();
    }
    EXPECT_EQ(m_Platform.CountLog("CLIENT > Dbus error: no"), 1U);
}

TEST_F(CServiceTest, RecordsThatWaitedForItArriveInOrderInSeveralBatches) {
    MakeCollector();
    StartPlayback();
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

TEST_F(CServiceTest, ServiceThatTakesLongerThanTheTimeoutLosesTheBatch) {
    Connect();
    m_pService->SetReply("SendData", Reply::ByRules().After(std::chrono::seconds(4)));
    StartPlayback();
    const auto begin = Clock::now();
    m_pCollector.reset();
    const auto waited = Clock::now() - begin;
    EXPECT_GE(waited, std::chrono::milliseconds(2900));
    EXPECT_LT(waited, std::chrono::milliseconds(3900));
    EXPECT_EQ(m_Platform.CountLog("SendData failed, data clear"), 1U);
}

TEST_F(CServiceTest, KickAnsweredLateFailsAfterItsShortTimeout) {
    m_pService->SetReply("Kick", Reply::ByRules().After(std::chrono::milliseconds(300)));
    Connect();
    ASSERT_TRUE(WaitForLog("service is connected!"));
    EXPECT_GE(m_Platform.CountLog("REPLY IS NULL!"), 1U);
}

TEST_F(CServiceTest, NoBusAtAllIsSurvived) {
    m_Bus.Stop();
    MakeCollector();
    StartPlayback();
    ASSERT_TRUE(WaitForLog("Connection is not ready. should re-create CDbusClient", 3));
    m_pCollector.reset();
    m_Bus.Restart();
}

TEST_F(CServiceTest, BusThatDiesDuringASessionIsSurvived) {
    Connect();
    StartPlayback();
    m_Bus.Stop();
    Events(20);
    ASSERT_TRUE(WaitForLog("SendData failed, data clear"));
    m_pCollector.reset();
    m_Bus.Restart();
}

TEST_F(CServiceTest, ServiceThatVanishesLosesBatchesAndGetsTheNextOnItsReturn) {
    Connect();
    StartPlayback();
    ASSERT_TRUE(WaitForLog("event 1."));
    StopService();
    Events(10);
    ASSERT_TRUE(WaitForLog("SendData failed, data clear"));
    StartService();
    Event(TY_EVENT_STOP);
    EXPECT_TRUE(m_pService->WaitForEvent(TY_EVENT_PLAYING_TIME, 1, kPatience));
}

}  // namespace
