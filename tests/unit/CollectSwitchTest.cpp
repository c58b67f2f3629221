// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

using testing::IsEmpty;

namespace {

/// Answers the collector's policy requests in the sender's place; if empty, the sender answers.
std::function<int(int* pInfo)> g_PolicyAnswer;

}  // namespace

// The linker's --wrap makes the collector call the first function instead of the sender's own, the
// second. The sender sets the policy to 0 when its request fails, so no reply on the bus can show
// that the collector checks the result.
int AnswerPolicy(CTYDataSender* pSender, std::string& appID,
                 int* pInfo) asm("__wrap_" TALLYRA_POLICY_SYMBOL);
int AskForPolicy(CTYDataSender* pSender, std::string& appID,
                 int* pInfo) asm("__real_" TALLYRA_POLICY_SYMBOL);

int AnswerPolicy(CTYDataSender* pSender, std::string& appID, int* pInfo) {
    return g_PolicyAnswer ? g_PolicyAnswer(pInfo) : AskForPolicy(pSender, appID, pInfo);
}

namespace {

const Reports kStartOnly{{TY_EVENT_START}};
const Reports kStartAndFree{{TY_EVENT_START}, {kFreeEvent}};

class CCollectSwitchTest : public CCollectorTest {
  protected:
    /// Changes the key, and waits until both threads have ended this many times in all.
    void ChangeKeyAndAwaitEnds(int value, std::size_t ends) {
        m_Platform.ChangeKey(value);
        ASSERT_TRUE(m_Platform.WaitForLog("Analyzer thread finished", ends));
        ASSERT_TRUE(m_Platform.WaitForLog("Sender thread finished", ends));
    }

    /// Reports a change of the key, which cannot be read then.
    void FireUnreadableKey() {
        m_Platform.keyResult = -4;
        m_Platform.FireKeyChanged();
        m_Platform.keyResult = 0;
    }

    /// Has the absent service appear at the next poll.
    void ServiceAppears() {
        m_Bus.SetOwner(true);
        m_Clock.Advance(std::chrono::seconds(1));
    }

    /// Constructs a collector, waits until it collects or has stopped, and starts a playback.
    /// @return whether that was recorded
    bool Collects(bool expected) {
        static_cast<void>(expected ? Collector() : CollectorThatStops());
        StartPlayback();
        return !Reported().empty();
    }

    /// @return whether the log has both lines in this order
    testing::AssertionResult LoggedBefore(const std::string& first, const std::string& second) {
        for (const auto& line : m_Platform.Log()) {
            if (line.text == first) {
                return testing::AssertionSuccess();
            }
            if (line.text == second) {
                break;
            }
        }
        return testing::AssertionFailure() << first << " was not logged before " << second;
    }
};

TEST_F(CCollectSwitchTest, OnlyOneMeansOn) {
    for (const int value : {1, 0, 2, -1}) {
        bool on = value != 1;
        Collector();
        m_Platform.keyValue = value;
        EXPECT_TRUE(Collector().GetCollectOnOff(&on));
        EXPECT_EQ(on, value == 1) << value;
    }
    bool on = true;
    m_Platform.keyResult = -3;
    EXPECT_FALSE(Collector().GetCollectOnOff(&on));
    EXPECT_FALSE(on);
    EXPECT_TRUE(Error("regdb_get_bool REGDBKEY_TYLOG_ONOFF failed -3"));
}

/// The key when the collector is constructed: its value, and the platform's code.
using Key = std::pair<int, int>;
using CKeyAtConstructionTest = CTableTest<CCollectSwitchTest, Key>;

TEST_P(CKeyAtConstructionTest, CollectsNothing) {
    std::tie(m_Platform.keyValue, m_Platform.keyResult) = Case();
    CollectorWithoutService();
    StartPlayback();
    EXPECT_TRUE(Debug("m_isDataCollectOn : [0]"));
    EXPECT_TRUE(NotLogged("event 1."));
}

const Named<Key> kKeys[] = {{"Zero", {0, 0}},
                            {"Two", {2, 0}},
                            {"MinusOne", {-1, 0}},
                            {"AByteOfOne", {257, 0}},
                            {"Unreadable", {1, -3}}};
INSTANTIATE_TEST_SUITE_P(Table, CKeyAtConstructionTest, testing::ValuesIn(kKeys), kByName);

TEST_F(CCollectSwitchTest, ServiceIsAskedAndTheSenderStartedOnceConnected) {
    Collector();
    EXPECT_TRUE(Debug("appID : org.example.app"));
    EXPECT_TRUE(Info("result : 1, pInfo : 1 "));
    EXPECT_EQ(m_Bus.Calls("GetPolicyInfo").at(0).timeoutMs, 3000);
    EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
    EXPECT_TRUE(Info("Analyzer thread start done"));
}

TEST_F(CCollectSwitchTest, FailedRequestThatLeavesAPolicySwitchesOff) {
    g_PolicyAnswer = [](int* pInfo) {
        *pInfo = 7;
        return 0;
    };
    CollectorThatStops();
    g_PolicyAnswer = nullptr;
    StartPlayback();
    EXPECT_THAT(Reported(), IsEmpty());
    EXPECT_TRUE(Info("result : 0, pInfo : 7 "));
}

TEST_F(CCollectSwitchTest, ServiceIsNotAskedWhileTheKeyIsOff) {
    m_Platform.keyValue = 0;
    CollectorThatStops().Start();
    EXPECT_THAT(m_Bus.Calls("GetPolicyInfo"), IsEmpty());
    EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
    EXPECT_TRUE(NotLogged("Sender thread start done"));
}

TEST_F(CCollectSwitchTest, RecordsWaitForTheServiceToAppear) {
    CollectorWithoutService();
    StartPlayback();
    ServiceAppears();
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    EXPECT_EQ(ReportedEvents(), kStartOnly);
}

TEST_F(CCollectSwitchTest, KeyThatWasOffIsReadAgainWhenTheServiceAppears) {
    m_Platform.keyValue = 0;
    CollectorWithoutService();
    m_Platform.keyValue = 1;
    ServiceAppears();
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    StartPlayback();
    EXPECT_EQ(ReportedEvents(), kStartOnly);
}

TEST_F(CCollectSwitchTest, UnreadableKeyWhenTheServiceAppearsStopsTheAnalyzerThenDropsItsRecords) {
    CollectorWithoutService();
    StartPlayback();
    m_Platform.keyResult = -3;
    ServiceAppears();
    ASSERT_TRUE(m_Platform.WaitForLog("drop collected data"));
    EXPECT_TRUE(LoggedBefore("Analyzer join terminate", "drop collected data"));
    m_pCollector.reset();
    EXPECT_THAT(m_Bus.Calls("GetPolicyInfo"), IsEmpty());
    EXPECT_THAT(SentRecords(), IsEmpty());
    EXPECT_TRUE(NotLogged("Sender thread start done"));
}

TEST_F(CCollectSwitchTest, TwoHundredAndOneRecordsWithoutAServiceEndCollection) {
    CollectorWithoutService();
    StartPlayback();
    ReportAll(Reports(200, {kFreeEvent}));
    while (!m_Platform.WaitForLog("Can't connect to service. Stop logging", 1,
                                  std::chrono::milliseconds(1))) {
        m_Clock.Advance(std::chrono::seconds(20));
    }
    ASSERT_TRUE(m_Platform.WaitForLog("drop collected data", 2));
    EXPECT_TRUE(Error("Can't connect to service. Stop logging"));
    m_Bus.SetOwner(true);
    StartPlayback();
    EXPECT_TRUE(Debug("m_isDataCollectOn : [0]"));
    EXPECT_THAT(Reported(), IsEmpty());
}

/// What happens to the key at a log line, or at the call of GetPolicyInfo if there is none.
struct Change {
    const char* line;
    bool off;
    bool unreadable;
    bool collects;
};
using CConcurrentChangeTest = CTableTest<CCollectSwitchTest, Change>;

TEST_P(CConcurrentChangeTest, OfTheKeyOutweighsAnOlderYesOfTheService) {
    const auto change = [this] {
        if (Case().off) {
            m_Platform.ChangeKey(0);
        }
        if (Case().unreadable) {
            FireUnreadableKey();
        }
    };
    m_Platform.onLog = [&](const CPlatformDouble::LogLine& line) {
        if (Case().line != nullptr && line.text == Case().line) {
            change();
        }
    };
    m_Bus.onCall = [&](const CFakeBus::Call& call) {
        if (Case().line == nullptr && call.Function() == "GetPolicyInfo") {
            change();
        }
    };
    EXPECT_EQ(Collects(Case().collects), Case().collects);
}

const Named<Change> kChanges[] = {
    {"OffWhileAsked", {nullptr, true, false, false}},
    {"UnreadableWhileAskedIsNoOff", {nullptr, false, true, true}},
    {"OffThenUnreadableWhileAsked", {nullptr, true, true, false}},
    // The settings thread reads the off after the connection check has read the on.
    {"OffJustBeforeAsked", {"appID : org.example.app", true, false, false}},
};
INSTANTIATE_TEST_SUITE_P(Table, CConcurrentChangeTest, testing::ValuesIn(kChanges), kByName);

// The second read is the connection handler's. It returns a value that is old by then.
TEST_F(CCollectSwitchTest, KeyThatGoesOffWhileItIsReadStaysOff) {
    std::atomic<int> reads = 0;
    m_Platform.onCall = [&](const std::string& name) {
        const int read = name == "regdb_get_bool" ? ++reads : 0;
        if (read == 2) {
            m_Platform.ChangeKey(0);
            m_Platform.keyValue = 1;
        } else if (read == 4) {
            m_Platform.keyValue = 0;
        }
    };
    EXPECT_FALSE(Collects(false));
    EXPECT_TRUE(Debug("m_isDataCollectOn : [0]"));
}

TEST_F(CCollectSwitchTest, UnreadableKeyRightAfterTheSendersStartStopsNothing) {
    m_Platform.onLog = [this](const CPlatformDouble::LogLine& line) {
        if (line.text == "Sender thread start done") {
            FireUnreadableKey();
        }
    };
    Collector();
    m_Platform.ChangeKey(1);
    StartPlayback();
    EXPECT_EQ(ReportedEvents(), kStartOnly);
    EXPECT_TRUE(Error("GetCollectOnOff failed!!"));
    EXPECT_TRUE(NotLogged("drop collected data"));
}

TEST_F(CCollectSwitchTest, YesOfTheServiceSwitchesOnAfterAnUnreadableKey) {
    Collector();
    FireUnreadableKey();
    EXPECT_EQ(Collector().RequestServicePolicy(), 1);
    StartPlayback();
    EXPECT_EQ(ReportedEvents(), kStartOnly);
}

using CKeyChangeTest = CTableTest<CCollectSwitchTest, int>;

TEST_P(CKeyChangeTest, StopsBothThreadsSendsTheRecordsAndForgetsThePlayback) {
    StartPlayback();
    m_Platform.ChangeKey(Case());
    EXPECT_TRUE(Info("m_isDataCollectOn : [0]"));
    EXPECT_TRUE(Info("Analyzer thread finished"));
    EXPECT_TRUE(UtilInfo("Sender thread finished"));
    EXPECT_EQ(ToReports(SentRecords()), kStartOnly);
    Event(TY_EVENT_SEEK);
    EXPECT_TRUE(Error("Do not start play, so do not collect data 9"));
    Event(TY_EVENT_START);
    EXPECT_EQ(ReportedEvents(), kStartOnly);
}

const Named<int> kOffValues[] = {{"ToZero", 0}, {"ToTwo", 2}, {"ToMinusOne", -1}};
INSTANTIATE_TEST_SUITE_P(Table, CKeyChangeTest, testing::ValuesIn(kOffValues), kByName);

// The threads are not restartable. Each new thread drains its queue and ends.
TEST_F(CCollectSwitchTest, RecordsAfterASecondOnWaitForTheNextChange) {
    Collector();
    ChangeKeyAndAwaitEnds(0, 1);
    ChangeKeyAndAwaitEnds(1, 2);
    StartPlayback();
    Event(kFreeEvent);
    ChangeKeyAndAwaitEnds(1, 3);
    ChangeKeyAndAwaitEnds(1, 4);
    EXPECT_EQ(ToReports(SentRecords()), kStartAndFree);
}

TEST_F(CCollectSwitchTest, KeySetToOneAgainContinuesThePlayback) {
    StartPlayback();
    m_Platform.ChangeKey(1);
    EXPECT_TRUE(Error("wrong!! Thread already start"));
    EXPECT_TRUE(UtilError("wrong!! Thread already start"));
    EXPECT_EQ(m_Bus.Calls("GetPolicyInfo").size(), 2U);
    Event(kFreeEvent);
    EXPECT_EQ(ReportedEvents(), kStartAndFree);
}

TEST_F(CCollectSwitchTest, PolicyOfZeroAtALaterChangeForgetsThePlayback) {
    StartPlayback();
    m_Bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, 0));
    m_Platform.ChangeKey(1);
    EXPECT_TRUE(NotLogged("wrong!! Thread already start"));
    Event(TY_EVENT_SEEK);
    EXPECT_TRUE(Error("Do not start play, so do not collect data 9"));
    m_Platform.ChangeKey(0);
    m_Platform.ChangeKey(1);
    EXPECT_EQ(m_Platform.CountLog("result : 1, pInfo : 0 "), 4U);
    Event(TY_EVENT_START);
    EXPECT_EQ(ReportedEvents(), kStartOnly);
}

TEST_F(CCollectSwitchTest, UnreadableKeySuspendsCollectionAndLeavesThePlaybackAndTheThreads) {
    StartPlayback();
    FireUnreadableKey();
    EXPECT_TRUE(Error("GetCollectOnOff failed!!"));
    for (const char* text : {"Analyzer thread finished", "Event Analyzer terminate",
                             "Sender thread finished", "Sender terminate"}) {
        EXPECT_TRUE(NotLogged(text));
    }
    Event(TY_EVENT_SEEK);
    m_Platform.FireKeyChanged();
    Event(kFreeEvent);
    EXPECT_EQ(ReportedEvents(), kStartAndFree);
}

TEST_F(CCollectSwitchTest, CallbackWithoutACollectorIsLogged) {
    Collector();
    m_Platform.FireKeyChangedWithoutData();
    CTYDataCollector::CollectOnOffCallback(nullptr, nullptr);
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTag, "pData is NULL!"), 2U);
}

TEST_F(CCollectSwitchTest, RefusedWatchAndRefusedRemovalAreLoggedAndReturned) {
    m_Platform.notifyResult = -8;
    Collector();
    EXPECT_TRUE(Error("regdb_notify_key_changed REGDBKEY_TYLOG_ONOFF error : -8"));
    EXPECT_FALSE(Collector().RegisterCollectOnOffCallback());
    m_Platform.notifyResult = 0;
    EXPECT_TRUE(Collector().RegisterCollectOnOffCallback());
    EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
    EXPECT_TRUE(Collector().UnRegisterCollectOnOffCallback());
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
    m_Platform.ignoreResult = -9;
    EXPECT_FALSE(Collector().UnRegisterCollectOnOffCallback());
    EXPECT_TRUE(Error("regdb_ignore_key_changed REGDBKEY_TYLOG_ONOFF error : -9"));
}

}  // namespace
