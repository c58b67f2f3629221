// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"
#include "ServiceProcess.h"

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;
using testing::Each;
using testing::IsEmpty;

namespace {

constexpr const char* kLost = "SendData failed, data clear";

/// A receiver in a process of its own.
class CReceiverProcess : public CServiceProcess {
  public:
    explicit CReceiverProcess(const std::string& address) : CServiceProcess(RECEIVER, address) {
        WaitUntilReady();
    }

    /// @return how many records it has printed
    int Records() const {
        const std::string output = Output();
        int count = 0;
        for (auto at = output.find(kUrl); at != std::string::npos; at = output.find(kUrl, at + 1)) {
            ++count;
        }
        return count;
    }
    bool WaitForRecords(int count) const {
        return Eventually([&] { return Records() >= count; });
    }

  private:
    static constexpr const char* kUrl = " film.mp4";
};

/// A service that fails during a playback.
class CServiceFaultTest : public CPipelineTest {
  protected:
    /// Creates a collector, waits until it delivers and starts a playback.
    void Play() {
        MakeCollector();
        ASSERT_TRUE(WaitForLog("Sender thread start done"));
        StartPlayback();
    }

    /// Reports the 10 records that wake the sender; returns when its call is under way.
    void BeginCall() {
        const std::size_t before = m_Platform.CountLog("send");
        Events(10);
        ASSERT_TRUE(WaitForLog("send", before + 1));
    }
};

TEST_F(CServiceFaultTest, KilledInTheMiddleOfACallLosesThatBatchAtOnce) {
    auto service = std::make_unique<CReceiverProcess>(m_Bus.Address());
    Play();
    service->Pause();
    BeginCall();
    const auto begin = Clock::now();
    service->Kill();
    EXPECT_TRUE(WaitForLog(kLost));
    EXPECT_LT(Clock::now() - begin, milliseconds(2500));
    service = std::make_unique<CReceiverProcess>(m_Bus.Address());
    Events(12);
    m_pCollector.reset();
    EXPECT_TRUE(service->WaitForRecords(12));
    EXPECT_EQ(service->Records(), 12);
}

TEST_F(CServiceFaultTest, HangingCostsEachBatchThreeSecondsAndTheServiceGetsItLate) {
    CReceiverProcess service(m_Bus.Address());
    Play();
    service.Pause();
    BeginCall();
    EXPECT_TRUE(WaitForLog(kLost));
    EXPECT_EQ(m_Platform.CountLog(kNoReply), 1U);
    EXPECT_EQ(service.Records(), 0);
    service.Resume();
    Events(10);
    m_pCollector.reset();
    EXPECT_TRUE(service.WaitForRecords(21));
    // The late reply was not taken for the reply to the next call.
    EXPECT_EQ(m_Platform.CountLog(kLost), 1U);
}

// A collector that found the service is switched off when the name vanishes before it can ask for
// the policy.
TEST_F(CServiceFaultTest, NameThatComesAndGoesMayCostACollectorThatConnectsMeanwhile) {
    int collectors = 0;
    {
        const std::jthread flapping([this](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                m_pService->OwnName();
                std::this_thread::sleep_for(milliseconds(50));
                m_pService->ReleaseName();
                std::this_thread::sleep_for(milliseconds(50));
            }
        });
        const auto end = Clock::now() + seconds(2);
        for (; Clock::now() < end; ++collectors) {
            MakeCollector();
            StartPlayback();
            m_pCollector.reset();
        }
    }
    const auto records = m_pService->Records();
    EXPECT_LE(records.size(), static_cast<std::size_t>(collectors));
    EXPECT_THAT(m_pService->Problems(), IsEmpty());
    m_Platform.ClearLog();
    Connect();
    StartPlayback();
    m_pCollector.reset();
    EXPECT_EQ(m_pService->Records().size(), records.size() + 1);
}

/// A bus that fails during a playback. The integration tests have the bus that dies and the one
/// that never existed.
class CBusFaultTest : public CPipelineTest {
  protected:
    CBusFaultTest() {
        Connect();
        StartPlayback();
    }
    ~CBusFaultTest() override { m_Bus.Resume(); }
};

TEST_F(CBusFaultTest, HaltedBusCostsEachBatchThreeSecondsAndCarriesItLate) {
    m_Bus.Pause();
    const auto begin = Clock::now();
    Events(10);
    EXPECT_LT(Clock::now() - begin, seconds(1));
    EXPECT_TRUE(WaitForLog(kLost));
    EXPECT_EQ(m_Platform.CountLog(kNoReply), 1U);
    m_Bus.Resume();
    Events(10);
    m_pCollector.reset();
    EXPECT_EQ(Arrived().size(), 21U);
    EXPECT_EQ(m_Platform.CountLog(kLost), 1U);
    EXPECT_THAT(m_pService->Problems(), IsEmpty());
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
    StartPlayback();
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), Each(TY_EVENT_START));
    EXPECT_EQ(Arrived().size(), 1U);
}

}  // namespace
