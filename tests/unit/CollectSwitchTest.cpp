// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Answers the collector's policy requests in the sender's place; while empty, the sender does.
std::function<int(int* pInfo)> g_PolicyAnswer;

}  // namespace

// The linker's --wrap has the collector call the first instead of the sender; the second is the
// sender's own. The sender never leaves a policy behind when its request fails, so no reply on the
// bus can show that the collector obeys the result.
int AnswerPolicy(CTYDataSender* pSender, std::string& appID,
                 int* pInfo) asm("__wrap_" TALLYRA_POLICY_SYMBOL);
int AskForPolicy(CTYDataSender* pSender, std::string& appID,
                 int* pInfo) asm("__real_" TALLYRA_POLICY_SYMBOL);

int AnswerPolicy(CTYDataSender* pSender, std::string& appID, int* pInfo) {
    return g_PolicyAnswer ? g_PolicyAnswer(pInfo) : AskForPolicy(pSender, appID, pInfo);
}

namespace {

class CCollectSwitchTest : public CCollectorTest {
  protected:
    // The second read is the connection handler's. It comes back with a value that is old by then.
    void LetTheKeyGoOffWhileTheHandlerReadsIt() {
        m_Platform.onCall = [this](const std::string& name) {
            const int read = name == "regdb_get_bool" ? ++m_nReads : 0;
            if (read == 2) {
                m_Platform.ChangeKey(0);
                m_Platform.keyValue = 1;
            } else if (read == 4) {
                m_Platform.keyValue = 0;
            }
        };
    }

    bool KeyMeansOn(int value) {
        bool on = value != 1;
        m_Platform.keyValue = value;
        EXPECT_TRUE(Collector().GetCollectOnOff(&on));
        return on;
    }

    /// Makes a collector that will not collect, and waits until it knows.
    void CollectorThatStops() {
        m_pCollector =
            std::make_unique<CTYDataCollector>("org.example.app", TY_PLAYER_NATIVE, m_Bus, m_Clock);
        EXPECT_TRUE(m_Platform.WaitForLog("drop collected data"));
        m_Platform.WaitForLog("Analyzer join terminate");
    }

    std::atomic<int> m_nReads = 0;
};

TEST_F(CCollectSwitchTest, OnlyOneMeansOn) {
    EXPECT_TRUE(KeyMeansOn(1));
    EXPECT_FALSE(KeyMeansOn(0));
    EXPECT_FALSE(KeyMeansOn(2));
    EXPECT_FALSE(KeyMeansOn(-1));
}

TEST_F(CCollectSwitchTest, KeyThatCannotBeReadIsOff) {
    bool on = true;
    Collector();
    m_Platform.keyResult = -3;
    EXPECT_FALSE(Collector().GetCollectOnOff(&on));
    EXPECT_FALSE(on);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "regdb_get_bool REGDBKEY_TYLOG_ONOFF failed -3"));
}

TEST_F(CCollectSwitchTest, ConnectedServiceIsAskedAndTheSenderStarted) {
    Collector();
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "appID : org.example.app"));
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "result : 1, pInfo : 1 "));
    EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "Analyzer thread start done"));
}

TEST_F(CCollectSwitchTest, PolicyOfSevenIsOn) {
    m_Bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, 7));
    StartPlayback();
    EXPECT_EQ(Reported().size(), 1U);
}

TEST_F(CCollectSwitchTest, PolicyOfZeroIsOff) {
    m_Bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, 0));
    CollectorThatStops();
    SetContent();
    Event(TY_EVENT_START);
    EXPECT_THAT(Reported(), IsEmpty());
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "result : 1, pInfo : 0 "));
}

class CFailedPolicyTest : public CCollectSwitchTest,
                          public testing::WithParamInterface<CFakeBus::Reply> {};

TEST_P(CFailedPolicyTest, SwitchesOffWhateverTheReplyCarries) {
    m_Bus.SetReply("GetPolicyInfo", GetParam());
    CollectorThatStops();
    SetContent();
    Event(TY_EVENT_START);
    EXPECT_THAT(Reported(), IsEmpty());
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "result : 0, pInfo : 0 "));
}

INSTANTIATE_TEST_SUITE_P(Replies, CFailedPolicyTest,
                         testing::Values(CFakeBus::Status(0, 7),
                                         CFakeBus::Reply{{0, 0, 1, 1, 0, 7, 2, 0, 7}, ""},
                                         CFakeBus::Reply{{0, 0, 1, 1, 1, "7"}, ""},
                                         CFakeBus::Reply{{0, 1, "1", 1, 0, 7}, ""},
                                         CFakeBus::Reply{{0, 0, 7}, ""},
                                         CFakeBus::Reply{{}, "no answer"}));

TEST_F(CCollectSwitchTest, FailedRequestThatLeavesAPolicySwitchesOff) {
    g_PolicyAnswer = [](int* pInfo) {
        *pInfo = 7;
        return 0;
    };
    CollectorThatStops();
    g_PolicyAnswer = nullptr;
    SetContent();
    Event(TY_EVENT_START);
    EXPECT_THAT(Reported(), IsEmpty());
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "result : 0, pInfo : 7 "));
}

TEST_F(CCollectSwitchTest, KeyThatIsOffAsksNoPolicy) {
    m_Platform.keyValue = 0;
    CollectorThatStops();
    EXPECT_THAT(m_Bus.Calls("GetPolicyInfo"), IsEmpty());
    EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
}

TEST_F(CCollectSwitchTest, RecordsWaitForAServiceThatComesLater) {
    CollectorWithoutService();
    StartPlayback();
    m_Bus.SetOwner(true);
    m_Clock.Advance(std::chrono::seconds(1));
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0"));
}

TEST_F(CCollectSwitchTest, TwoHundredAndOneRecordsWithoutAServiceEndCollection) {
    CollectorWithoutService();
    StartPlayback();
    for (int i = 0; i < 200; ++i) {
        Event(99);
    }
    while (!m_Platform.WaitForLog("Can't connect to service. Stop logging", 1,
                                  std::chrono::milliseconds(1))) {
        m_Clock.Advance(std::chrono::seconds(20));
    }
    ASSERT_TRUE(m_Platform.WaitForLog("drop collected data", 2));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Can't connect to service. Stop logging"));
    m_Bus.SetOwner(true);
    SetContent();
    Event(TY_EVENT_START);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "m_isDataCollectOn : [0]"));
    EXPECT_THAT(Reported(), IsEmpty());
}

TEST_F(CCollectSwitchTest, KeyThatGoesOffStopsBothThreadsAndForgetsThePlayback) {
    StartPlayback();
    m_Platform.ChangeKey(0);
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "m_isDataCollectOn : [0]"));
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "Analyzer thread finished"));
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTagUtil, "Sender thread finished"));
    EXPECT_THAT(SentEvents(), ElementsAre(1));
    Event(9);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Do not start play, so do not collect data 9"));
}

TEST_F(CCollectSwitchTest, KeyMayFlipAnyNumberOfTimes) {
    Collector();
    for (int flip = 0; flip < 10; ++flip) {
        m_Platform.ChangeKey(flip % 2);
    }
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_INFO, kTag, "m_isDataCollectOn : [1]"), 5U);
    m_pCollector.reset();
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
}

TEST_F(CCollectSwitchTest, KeyThatGoesOnAgainAsksThePolicyAndMayBeRefused) {
    Collector();
    m_Platform.ChangeKey(0);
    m_Bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, 0));
    m_Platform.ChangeKey(1);
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "result : 1, pInfo : 0 "));
    SetContent();
    Event(TY_EVENT_START);
    EXPECT_THAT(Reported(), IsEmpty());
}

TEST_F(CCollectSwitchTest, FailedReadInTheCallbackLeavesTheThreadsRunning) {
    StartPlayback();
    m_Platform.keyResult = -4;
    m_Platform.FireKeyChanged();
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "GetCollectOnOff failed!!"));
    for (const char* text : {"Analyzer thread finished", "Event Analyzer terminate",
                             "Sender thread finished", "Sender terminate"}) {
        EXPECT_TRUE(NotLogged(text));
    }
    Event(9);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0"));
}

TEST_F(CCollectSwitchTest, KeyThatGoesOffWhileTheServiceIsAskedStaysOff) {
    m_Bus.onCall = [this](const CFakeBus::Call& call) {
        if (call.Function() == "GetPolicyInfo") {
            m_Platform.ChangeKey(0);
        }
    };
    m_pCollector =
        std::make_unique<CTYDataCollector>("org.example.app", TY_PLAYER_NATIVE, m_Bus, m_Clock);
    ASSERT_TRUE(m_Platform.WaitForLog("drop collected data"));
    StartPlayback();
    EXPECT_THAT(ReportedTexts(), testing::IsEmpty());
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "m_isDataCollectOn : [0]"));
}

// A read that failed is no off of the key's: the service's yes switches collection on again.
TEST_F(CCollectSwitchTest, KeyThatCannotBeReadWhileTheServiceIsAskedLeavesItsYes) {
    m_Bus.onCall = [this](const CFakeBus::Call& call) {
        if (call.Function() == "GetPolicyInfo") {
            m_Platform.keyResult = -4;
            m_Platform.FireKeyChanged();
            m_Platform.keyResult = 0;
        }
    };
    Collector();
    StartPlayback();
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0"));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "GetCollectOnOff failed!!"));
}

// The off was read; the read behind it failed, which takes nothing back.
TEST_F(CCollectSwitchTest, KeyThatGoesOffAndThenCannotBeReadWhileTheServiceIsAskedStaysOff) {
    m_Bus.onCall = [this](const CFakeBus::Call& call) {
        if (call.Function() == "GetPolicyInfo") {
            m_Platform.ChangeKey(0);
            m_Platform.keyResult = -4;
            m_Platform.FireKeyChanged();
        }
    };
    CollectorThatStops();
    StartPlayback();
    EXPECT_THAT(ReportedTexts(), IsEmpty());
}

// The settings thread reads the off when the connection check has just read the on.
TEST_F(CCollectSwitchTest, KeyThatGoesOffJustBeforeTheServiceIsAskedStaysOff) {
    m_Platform.onLog = [this](const CPlatformDouble::LogLine& line) {
        if (line.text == "appID : org.example.app") {
            m_Platform.ChangeKey(0);
        }
    };
    CollectorThatStops();
    StartPlayback();
    EXPECT_THAT(ReportedTexts(), IsEmpty());
}

TEST_F(CCollectSwitchTest, YesSwitchesOnACollectorWhoseKeyCouldNotBeReadBefore) {
    Collector();
    m_Platform.keyResult = -4;
    m_Platform.FireKeyChanged();
    m_Platform.keyResult = 0;
    EXPECT_EQ(Collector().RequestServicePolicy(), 1);
    StartPlayback();
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0"));
}

TEST_F(CCollectSwitchTest, KeyThatGoesOffWhileItIsReadStaysOff) {
    LetTheKeyGoOffWhileTheHandlerReadsIt();
    CollectorThatStops();
    StartPlayback();
    EXPECT_THAT(ReportedTexts(), testing::IsEmpty());
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "m_isDataCollectOn : [0]"));
}

TEST_F(CCollectSwitchTest, FailedReadRightBehindTheSendersStartEndsNothing) {
    m_Platform.onLog = [this](const CPlatformDouble::LogLine& line) {
        if (line.text == "Sender thread start done") {
            m_Platform.keyResult = -4;
            m_Platform.FireKeyChanged();
            m_Platform.keyResult = 0;
        }
    };
    Collector();
    m_Platform.ChangeKey(1);
    StartPlayback();
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0"));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "GetCollectOnOff failed!!"));
    EXPECT_TRUE(NotLogged("drop collected data"));
}

TEST_F(CCollectSwitchTest, PolicyRequestHasThreeSecondsForItsReply) {
    Collector();
    EXPECT_EQ(m_Bus.Calls("GetPolicyInfo").at(0).timeoutMs, 3000);
}

TEST_F(CCollectSwitchTest, NotificationWithoutDataIsLogged) {
    Collector();
    m_Platform.FireKeyChangedWithoutData();
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "pData is NULL!"));
}

TEST_F(CCollectSwitchTest, CallbackWithoutACollectorIsLogged) {
    CTYDataCollector::CollectOnOffCallback(nullptr, nullptr);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "pData is NULL!"));
}

TEST_F(CCollectSwitchTest, RefusedWatchesAreLogged) {
    m_Platform.notifyResult = -8;
    m_Platform.ignoreResult = -9;
    Collector();
    m_pCollector.reset();
    EXPECT_TRUE(
        Logged(LOGSVC_ERROR, kTag, "regdb_notify_key_changed REGDBKEY_TYLOG_ONOFF error : -8"));
    EXPECT_TRUE(
        Logged(LOGSVC_ERROR, kTag, "regdb_ignore_key_changed REGDBKEY_TYLOG_ONOFF error : -9"));
}

TEST_F(CCollectSwitchTest, LifeIsLogged) {
    Collector();
    m_pCollector.reset();
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "CTYDataCollector Create >>"));
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "ty interface version 1.2"));
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "CTYDataCollector Destroy >>"));
}

}  // namespace
