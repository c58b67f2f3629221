// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"

namespace {

// One bus for the process, since libdbus reads its address once. Each test restarts it.
CPrivateBus& TheBus() {
    static CPrivateBus bus;
    bus.BecomeSystemBus();
    return bus;
}

}  // namespace

CPipelineTest::CPipelineTest() : m_Bus(TheBus()) {
    m_Platform.Reset();
    m_Bus.Restart();
    m_pService = std::make_unique<receiver::CReceiver>(m_Bus.Address());
}

void CPipelineTest::StartService() {
    m_pService->OwnName();
}

void CPipelineTest::MakeCollector() {
    m_pCollector.reset(GetTYDataCollectorInstance("org.example.app", TY_PLAYER_WEB));
}

void CPipelineTest::Connect() {
    StartService();
    MakeCollector();
    ASSERT_TRUE(WaitForLog("Sender thread start done"));
}

void CPipelineTest::SetContent(const std::string& url, const std::string& title) {
    std::string copy = url;
    CTYContentInfo info(&copy, 0);
    info.SetTitle(title);
    m_pCollector->SetContentInfo(&info);
}

void CPipelineTest::Events(int count) {
    for (int i = 0; i < count; ++i) {
        Event(99, i);
    }
}

std::vector<int> CPipelineTest::Arrived() const {
    std::vector<int> events;
    for (const auto& record : m_pService->Records()) {
        events.push_back(record.record.event);
    }
    return events;
}
