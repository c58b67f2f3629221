// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

using namespace std::chrono_literals;

namespace {

/// Deletes a collector while one of its threads is stopped at a chosen place: a log line, a call to
/// the service as in "call Kick", or the look-up of the service, "look".
class CDeletionTest : public CCollectorTest {
  public:
    CDeletionTest() {
        m_Platform.onLog = [this](const CPlatformDouble::LogLine& line) { Reach(line.text); };
        m_Bus.onLook = [this] { Reach("look"); };
        m_Bus.onCall = [this](const CFakeBus::Call& call) {
            Reach("call " + call.Function());
            if (m_bSilent) {
                m_Clock.Advance(std::chrono::milliseconds(call.timeoutMs));
            }
        };
    }
    ~CDeletionTest() override {
        m_Barrier.Open();
        m_pCollector.reset();
    }

    /// Stops the first thread that reaches the place.
    void StopAt(const std::string& place) {
        const std::lock_guard lock(m_Mutex);
        m_strPlace = place;
    }

    /// From now on each call runs into its timeout.
    void SilenceService() {
        m_Bus.SetReply("SendData", {{}, "no answer"});
        m_Bus.SetReply("GetPolicyInfo", {{}, "no answer"});
        m_bSilent = true;
    }

    // What a case does before and after the place is chosen, so that a thread reaches it.
    void Nothing() {}
    void Make() { MakeCollector(); }
    void MakeAndWait() { Collector(); }
    void Play() { StartPlayback(); }
    void PlayLong() { Queue(1000); }
    void MakeWithoutService() { CollectorWithoutService(); }
    void Poll() { m_Clock.Advance(1s); }
    void RemoveService() { m_Bus.SetOwner(false); }
    void SwitchKeyOff() { m_Platform.keyValue = 0; }
    void MakeAndChangeKeyToOff() {
        Collector();
        m_Platform.ChangeKey(0);
    }
    void AddService() {
        m_Bus.SetOwner(true);
        Poll();
    }
    void ChangeKeyToOff() {
        Beside([this] { m_Platform.ChangeKey(0); });
    }
    void ChangeKeyToOn() {
        Beside([this] { m_Platform.ChangeKey(1); });
    }
    void ChangeKeyAndAwaitRequest() {
        ChangeKeyToOn();
        ASSERT_TRUE(m_Platform.WaitForLog("appID : org.example.app", 2));
    }
    void ChangeNetwork() {
        Beside([this] { m_Platform.FireNetwork(0, "GATEWAY"); });
    }

    /// Reports a START and a number of other events, once both threads are asleep.
    void Queue(int records) {
        Collector();
        ASSERT_TRUE(m_Clock.AwaitWaiter(20s, 30s, 2));
        StartPlayback();
        for (int i = 0; i < records; ++i) {
            Event(kFreeEvent, i);
        }
    }

    /// Deletes the collector while a thread is stopped, which must have left before it is deleted.
    void DeleteWhileStopped() {
        ASSERT_TRUE(m_Barrier.AwaitThread());
        auto deletion = std::async(std::launch::async, [this] { m_pCollector.reset(); });
        EXPECT_TRUE(m_Platform.WaitForLog("CTYDataCollector Destroy >>"));
        EXPECT_EQ(deletion.wait_for(30ms), std::future_status::timeout)
            << "the collector was deleted while a thread used it";
        m_Barrier.Open();
        ASSERT_EQ(deletion.wait_for(60s), std::future_status::ready);
        ExpectNothingIsLeft();
    }

    void ExpectNothingIsLeft() {
        EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
        EXPECT_EQ(m_Platform.NetworkMonitors(), 0U);
        EXPECT_EQ(m_Bus.Count("Close"), 1U);
        EXPECT_EQ(m_Clock.Waiters(), 0U);
    }

  protected:
    /// Runs a callback of the platform on its own thread.
    void Beside(std::function<void()> action) {
        m_Beside = std::async(std::launch::async, std::move(action));
    }

    CBarrier m_Barrier;
    std::future<void> m_Beside;

  private:
    void Reach(const std::string& place) {
        {
            const std::lock_guard lock(m_Mutex);
            if (place != m_strPlace) {
                return;
            }
        }
        m_Barrier.Pass();
    }

    std::mutex m_Mutex;
    std::string m_strPlace;
    std::atomic<bool> m_bSilent{false};
};

using Action = void (CDeletionTest::*)();
using T = CDeletionTest;

struct Moment {
    Action before;
    const char* place;
    Action then;
};
using CMomentTest = CTableTest<CDeletionTest, Moment>;

TEST_P(CMomentTest, IsSafeForADeletion) {
    (this->*Case().before)();
    StopAt(Case().place);
    (this->*Case().then)();
    DeleteWhileStopped();
}

const Named<Moment> kConnectionMoments[] = {
    {"LookUp", {&T::Nothing, "look", &T::Make}},
    {"Kick", {&T::RemoveService, "call Kick", &T::Make}},
    {"KickBeforeASleep", {&T::MakeWithoutService, "call Kick", &T::Poll}},
    {"Presence", {&T::Nothing, "IsConnected returns 1", &T::Make}},
    {"Connected", {&T::Nothing, "service is connected!", &T::Make}},
    {"Application", {&T::Nothing, "appID : org.example.app", &T::Make}},
    {"Request", {&T::Nothing, "Get policy of org.example.app", &T::Make}},
    {"Send", {&T::Nothing, "send", &T::Make}},
    {"Policy", {&T::Nothing, "call GetPolicyInfo", &T::Make}},
    {"Answer", {&T::Nothing, "result : 1, pInfo : 1 ", &T::Make}},
    {"Start", {&T::Nothing, "Sender thread start done", &T::Make}},
    {"EndOfCollection", {&T::SwitchKeyOff, "Analyzer thread joinable", &T::Make}},
};
INSTANTIATE_TEST_SUITE_P(OfTheConnectionCheck, CMomentTest, testing::ValuesIn(kConnectionMoments),
                         kByName);

const Named<Moment> kPlatformMoments[] = {
    {"KeyOff", {&T::Play, "m_isDataCollectOn : [0]", &T::ChangeKeyToOff}},
    {"AnalyzerTerminates", {&T::Play, "Event Analyzer terminate", &T::ChangeKeyToOff}},
    {"AnalyzerIsJoined", {&T::Play, "Analyzer thread joinable", &T::ChangeKeyToOff}},
    {"SenderTerminates", {&T::Play, "Sender terminate", &T::ChangeKeyToOff}},
    {"SenderIsJoined", {&T::Play, "Sender thread joinable", &T::ChangeKeyToOff}},
    {"SenderWasJoined", {&T::Play, "Sender join terminate", &T::ChangeKeyToOff}},
    {"KeyOn", {&T::Play, "m_isDataCollectOn : [1]", &T::ChangeKeyToOn}},
    {"PolicyIsAsked", {&T::Play, "appID : org.example.app", &T::ChangeKeyToOn}},
    {"PolicyIsAnswered", {&T::Play, "result : 1, pInfo : 1 ", &T::ChangeKeyToOn}},
    {"ThreadsRunAlready", {&T::Play, "wrong!! Thread already start", &T::ChangeKeyToOn}},
    {"PolicyAfterOff", {&T::MakeAndChangeKeyToOff, "call GetPolicyInfo", &T::ChangeKeyToOn}},
    {"Gateway", {&T::MakeAndWait, "[GATEWAY] State callback Result : [0]", &T::ChangeNetwork}},
    {"Type", {&T::MakeAndWait, "isConnect : 1, m_NetworkType : 1", &T::ChangeNetwork}},
    {"NoCallback", {&T::MakeAndWait, "m_pConnectedCallback is NULL!!!", &T::ChangeNetwork}},
};
INSTANTIATE_TEST_SUITE_P(OfThePlatform, CMomentTest, testing::ValuesIn(kPlatformMoments), kByName);

// The service is found, and the collector is deleted before the connection check learns of it.
TEST_F(CDeletionTest, WhileTheServiceAppearsCallsTheHandlerOnce) {
    CollectorWithoutService();
    StopAt("look");
    AddService();
    DeleteWhileStopped();
    EXPECT_EQ(m_Platform.CountLog("service is connected!") +
                  m_Platform.CountLog("Can't connect to service. Stop logging"),
              1U);
}

using CWorkerMomentTest = CTableTest<CDeletionTest, std::string>;

TEST_P(CWorkerMomentTest, IsSafeForADeletionAndLosesNoRecord) {
    Collector();
    StopAt(Case());
    Queue(20);
    DeleteWhileStopped();
    EXPECT_EQ(SentRecords().size(), 21U);
}

const Named<std::string> kWorkerPlaces[] = {
    {"Forwarding", "event 1."},
    {"SenderWakes", "CTYDataSender thread wake up!!"},
    {"Batch", "CTYDataSender SendData start "},
    {"Send", "send"},
    {"Call", "call SendData"},
};
INSTANTIATE_TEST_SUITE_P(OfTheWorkers, CWorkerMomentTest, testing::ValuesIn(kWorkerPlaces),
                         kByName);

/// A thread that is in a call when the service stops answering, and what happens besides.
struct Silence {
    const char* place;
    Action reach;
    Action besides;
    /// The last line before the deletion waits for the call.
    const char* waits;
};
using CSilenceTest = CTableTest<CDeletionTest, Silence>;

TEST_P(CSilenceTest, CostsADeletionOneReplyTimeout) {
    const auto& [place, reach, besides, waits] = Case();
    StopAt(place);
    (this->*reach)();
    ASSERT_TRUE(m_Barrier.AwaitThread());
    SilenceService();
    (this->*besides)();
    auto deletion = std::async(std::launch::async, [this] {
        const auto begin = m_Clock.SteadyNow();
        m_pCollector.reset();
        return m_Clock.SteadyNow() - begin;
    });
    ASSERT_TRUE(m_Platform.WaitForLog(waits));
    m_Barrier.Open();
    EXPECT_EQ(deletion.get(), 3s);
    EXPECT_LE(m_Bus.Calls("SendData").size(), 1U);
    ExpectNothingIsLeft();
}

const Named<Silence> kSilences[] = {
    {"InABatch", {"call SendData", &T::PlayLong, &T::Nothing, "Sender thread joinable"}},
    {"InABatchAndAPolicyRequest",
     {"call SendData", &T::PlayLong, &T::ChangeKeyAndAwaitRequest, "Sender thread joinable"}},
    {"InAPolicyRequest",
     {"call GetPolicyInfo", &T::Make, &T::Nothing, "CTYDataCollector Destroy >>"}},
};
INSTANTIATE_TEST_SUITE_P(Table, CSilenceTest, testing::ValuesIn(kSilences), kByName);

}  // namespace
