// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_PIPELINE_PIPELINEFIXTURE_H
#define TALLYRA_TESTS_SUPPORT_PIPELINE_PIPELINEFIXTURE_H

#include "Eventually.h"
#include "PrivateBus.h"
#include "Test.h"
#include "doubles/PlatformDouble.h"
#include "receiver/Receiver.h"

#include <tallyra/ITYDataCollector.h>

/// An event without a name.
constexpr int kFreeEvent = 99;

/// The log line of a call that timed out. libdbus words it, and field tooling matches it.
constexpr const char* kNoReply =
    "CLIENT > Dbus error: Did not receive a reply. Possible causes include: the remote application "
    "did not send a reply, the message bus security policy blocked the reply, the reply timeout "
    "expired, or the network connection was broken.";

/// A real bus, receiver and collector; only the platform is a double.
class CPipelineTest : public testing::Test {
  protected:
    CPipelineTest() {
        m_Platform.Reset();
        m_Bus.Restart();
        m_pService = std::make_unique<receiver::CReceiver>(m_Bus.Address());
    }

    void StartService() { m_pService->OwnName(); }

    void MakeCollector() {
        m_pCollector.reset(GetTYDataCollectorInstance("org.example.app", TY_PLAYER_WEB));
    }
    /// Starts the service and a collector, and waits until the collector sends.
    void Connect() {
        StartService();
        MakeConnectedCollector();
    }
    /// Creates a collector and waits until its sender sleeps. From then on a record waits for nine
    /// others; the sender looks for the first records on its way to sleep.
    void MakeConnectedCollector() {
        MakeCollector();
        ASSERT_TRUE(WaitForLog("CTYDataSender thread sleep...."));
    }

    void Event(int event, int param1 = 0, int param2 = 0) {
        m_pCollector->SendMediaEvent(static_cast<TY_EVENT_TYPE>(event), param1, param2);
    }
    /// Sets content and reports START.
    void StartPlayback(std::string url = "film.mp4") {
        CTYContentInfo info(&url, 0);
        info.SetTitle("Film");
        m_pCollector->SetContentInfo(&info);
        Event(TY_EVENT_START);
    }
    /// Reports an event without a name a number of times, numbered by its first parameter.
    void Events(int count) {
        for (int i = 0; i < count; ++i) {
            Event(kFreeEvent, i);
        }
    }

    /// @return the event codes of the records that arrived
    std::vector<int> Arrived() const {
        std::vector<int> events;
        for (const auto& record : m_pService->Records()) {
            events.push_back(record.record.event);
        }
        return events;
    }
    bool WaitForLog(const std::string& text, std::size_t count = 1) {
        return m_Platform.WaitForLog(text, count, kPatience);
    }

    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    CPrivateBus& m_Bus = TheBus();
    std::unique_ptr<receiver::CReceiver> m_pService;
    std::unique_ptr<ITYDataCollector> m_pCollector;

  private:
    // One bus per process, because libdbus reads its address once. Each test restarts it.
    static CPrivateBus& TheBus() {
        static CPrivateBus bus;
        bus.BecomeSystemBus();
        return bus;
    }
};

#endif  // TALLYRA_TESTS_SUPPORT_PIPELINE_PIPELINEFIXTURE_H
