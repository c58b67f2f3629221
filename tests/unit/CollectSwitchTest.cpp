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
#define TY_POLICY_SYMBOL \
    "_ZN13CTYDataSender13GetPolicyInfoERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEPi"
int AnswerPolicy(CTYDataSender* pSender, std::string& app,
                 int* pInfo) asm("__wrap_" TY_POLICY_SYMBOL);
int AskForPolicy(CTYDataSender* pSender, std::string& app,
                 int* pInfo) asm("__real_" TY_POLICY_SYMBOL);
int AnswerPolicy(CTYDataSender* pSender, std::string& app, int* pInfo) {
    return g_PolicyAnswer ? g_PolicyAnswer(pInfo) : AskForPolicy(pSender, app, pInfo);
}

namespace {

const Reports kStartOnly{{TY_EVENT_START}};
const Reports kStartAndFree{{TY_EVENT_START}, {kFreeEvent}};

class CCollectSwitchTest : public CCollectorTest {
  protected:
    /// Reports a change of the key, which cannot be read then.
    void FireUnreadableKey() {
        m_Platform.keyResult = -4;
        m_Platform.FireKeyChanged();
        m_Platform.keyResult = 0;
    }

    /// Has the absent service appear at the next poll, and waits for a log line.
    void ServiceAppears(const char* line) {
        m_Bus.SetOwner(true);
        m_Clock.Advance(std::chrono::seconds(1));
        ASSERT_TRUE(m_Platform.WaitForLog(line));
    }

    /// Constructs a collector, waits until it collects or has stopped, and starts a playback.
    /// @return whether that was recorded
    bool Collects(bool expected) {
        static_cast<void>(expected ? Collector() : CollectorThatStops());
        StartPlayback();
        return !Reported().empty();
    }
};

TEST_F(CCollectSwitchTest, OnlyOneMeansOn) {
    for (const int value : {1, 0, 2, -1, 257}) {
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

TEST_F(CCollectSwitchTest, PolicyOfZeroOrAFailedRequestCollectsNothingAndAnyOtherCollects) {
    const std::pair<CFakeBus::Reply, bool> replies[] = {
        {CFakeBus::Status(1, 0), false}, {{{}, "no"}, false}, {CFakeBus::Status(1, 7), true}};
    for (const auto& [reply, collects] : replies) {
        m_Platform.ClearLog();
        m_Bus.SetReply("GetPolicyInfo", reply);
        EXPECT_EQ(Collects(collects), collects);
    }
    EXPECT_TRUE(Info("result : 1, pInfo : 7 "));
}

TEST_F(CCollectSwitchTest, FailedRequestThatLeavesAPolicySwitchesOff) {
    g_PolicyAnswer = [](int* pInfo) {
        *pInfo = 7;
        return 0;
    };
    EXPECT_FALSE(Collects(false));
    g_PolicyAnswer = nullptr;
    EXPECT_TRUE(Debug("appID : org.example.app"));
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
    ServiceAppears("Sender thread start done");
    EXPECT_EQ(ReportedEvents(), kStartOnly);
}

TEST_F(CCollectSwitchTest, KeyThatWasOffIsReadAgainWhenTheServiceAppears) {
    m_Platform.keyValue = 0;
    CollectorWithoutService();
    m_Platform.keyValue = 1;
    ServiceAppears("Sender thread start done");
    StartPlayback();
    EXPECT_EQ(ReportedEvents(), kStartOnly);
}

TEST_F(CCollectSwitchTest, UnreadableKeyWhenTheServiceAppearsStopsTheAnalyzerThenDropsItsRecords) {
    CollectorWithoutService();
    StartPlayback();
    m_Platform.keyResult = -3;
    ServiceAppears("drop collected data");
    const auto log = m_Platform.Log();
    EXPECT_LT(std::ranges::find(log, "Analyzer join terminate", &PlatformLogLine::text),
              std::ranges::find(log, "drop collected data", &PlatformLogLine::text));
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

/// What happens to the key at a log line.
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
        if (line.text == Case().line) {
            change();
        }
    };
    EXPECT_EQ(Collects(Case().collects), Case().collects);
}

constexpr const char* kAsks = "Get policy of org.example.app";
const Named<Change> kChanges[] = {
    {"OffWhileAsked", {kAsks, true, false, false}},
    {"UnreadableWhileAskedIsNoOff", {kAsks, false, true, true}},
    {"OffThenUnreadableWhileAsked", {kAsks, true, true, false}},
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

TEST_F(CCollectSwitchTest,
       KeyThatIsNoLongerOneStopsBothThreadsSendsTheRecordsAndForgetsThePlayback) {
    StartPlayback();
    m_Platform.ChangeKey(2);
    EXPECT_TRUE(Info("m_isDataCollectOn : [0]"));
    EXPECT_TRUE(Info("Analyzer thread finished"));
    EXPECT_TRUE(UtilInfo("Sender thread finished"));
    EXPECT_EQ(ToReports(SentRecords()), kStartOnly);
    Event(TY_EVENT_SEEK);
    EXPECT_TRUE(Error("Do not start play, so do not collect data 9"));
    Event(TY_EVENT_START);
    EXPECT_EQ(ReportedEvents(), kStartOnly);
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
