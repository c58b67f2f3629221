// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"
#include "ServiceProcess.h"
#include "TableTest.h"

#include <regex>

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
    std::ptrdiff_t Records() const {
        static const std::regex record(" film\\.mp4");
        const std::string output = Output();
        return std::distance(std::sregex_iterator(output.begin(), output.end(), record),
                             std::sregex_iterator());
    }
    bool WaitForRecords(int count) const {
        return Eventually([&] { return Records() >= count; });
    }
};

/// A service that fails during a playback.
class CServiceFaultTest : public CPipelineTest {
  protected:
    /// Creates a collector, waits until it delivers and starts a playback.
    void Play() {
        MakeConnectedCollector();
        StartPlayback();
    }

    /// Takes the service's name and releases it, ten times a second.
    std::jthread Flap() {
        return std::jthread([this](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                m_pService->OwnName();
                std::this_thread::sleep_for(milliseconds(50));
                m_pService->ReleaseName();
                std::this_thread::sleep_for(milliseconds(50));
            }
        });
    }
};

TEST_F(CServiceFaultTest, KilledInTheMiddleOfACallLosesThatBatchAtOnce) {
    auto service = std::make_unique<CReceiverProcess>(m_Bus.Address());
    Play();
    service->Pause();
    const std::size_t sent = m_Platform.CountLog("send");
    Events(10);
    ASSERT_TRUE(WaitForLog("send", sent + 1));
    const auto begin = Clock::now();
    service->Kill();
    EXPECT_TRUE(WaitForLog(kLost));
    EXPECT_LT(Clock::now() - begin, milliseconds(2500));
    service = std::make_unique<CReceiverProcess>(m_Bus.Address());
    Events(12);
    m_pCollector.reset();
    EXPECT_TRUE(service->WaitForRecords(12));
    // Ten records wake the sender. The last one before the kill may have come after it counted.
    EXPECT_LE(service->Records(), 13);
}

// A collector that found the service is switched off when the name vanishes before it can ask for
// the policy.
TEST_F(CServiceFaultTest, NameThatComesAndGoesMayCostACollectorThatConnectsMeanwhile) {
    int collectors = 0;
    {
        const std::jthread flapping = Flap();
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

struct Halt {
    void (*pause)(const CReceiverProcess& service, CPrivateBus& bus);
    void (*resume)(const CReceiverProcess& service, CPrivateBus& bus);
};
using CHaltTest = CTableTest<CServiceFaultTest, Halt>;

TEST_P(CHaltTest, CostsEachBatchThreeSecondsAndDeliversItLate) {
    const CReceiverProcess service(m_Bus.Address());
    Play();
    Case().pause(service, m_Bus);
    const auto begin = Clock::now();
    Events(10);
    EXPECT_LT(Clock::now() - begin, seconds(1));
    EXPECT_TRUE(WaitForLog(kLost));
    EXPECT_EQ(m_Platform.CountLog(kNoReply), 1U);
    EXPECT_EQ(service.Records(), 0);
    Case().resume(service, m_Bus);
    Events(10);
    m_pCollector.reset();
    EXPECT_TRUE(service.WaitForRecords(21));
    // The late reply was not taken for the reply to the next call.
    EXPECT_EQ(m_Platform.CountLog(kLost), 1U);
}

const Named<Halt> kHalts[] = {
    {"HaltedService",
     {[](auto& service, auto&) { service.Pause(); },
      [](auto& service, auto&) { service.Resume(); }}},
    {"HaltedBus", {[](auto&, auto& bus) { bus.Pause(); }, [](auto&, auto& bus) { bus.Resume(); }}},
};
INSTANTIATE_TEST_SUITE_P(Halts, CHaltTest, testing::ValuesIn(kHalts), kByName);

TEST_F(CServiceFaultTest, BusThatNeverGoesOnDoesNotKeepACollectorFromGoing) {
    Connect();
    StartPlayback();
    m_Bus.Pause();
    Events(100);
    const auto begin = Clock::now();
    m_pCollector.reset();
    // At most three batches are under way or queued; they share a budget of 3 s.
    EXPECT_LT(Clock::now() - begin, seconds(6));
    EXPECT_GE(m_Platform.CountLog(kLost), 1U);
    m_Bus.Resume();
}

TEST_F(CServiceFaultTest, RestartedBusServesTheNextCollectorAndNotTheOneBefore) {
    Connect();
    StartPlayback();
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
