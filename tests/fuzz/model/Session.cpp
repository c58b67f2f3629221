// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Session.h"

namespace model {

namespace {

constexpr std::int64_t kBetweenLooks = 1000;
// With more queued records the collector stops waiting for the service.
constexpr std::size_t kMostWaiting = 200;

}  // namespace

CSession::CSession(const World& world, const std::optional<std::string>& appId, int playerID)
    : m_World(world),
      m_Network(world),
      m_Playback(world, m_Network),
      m_strApp(Cut(appId.value_or(""), 50)),
      m_strVersion(appId ? Cut(world.version, 12) : ""),
      m_nPlayerID(static_cast<std::int8_t>(playerID)),
      m_bOn(world.IsKeyOn()),
      m_nUntilLook(kBetweenLooks) {
    m_Network.LookUp();
}

// The state of the playback changes also while collection is off.
void CSession::SendEvent(int event, std::int32_t param1, std::int32_t param2) {
    const bool ends = m_Playback.IsUnderWay() && event == 2;
    if (const auto report = m_Playback.Report(event, param1, param2)) {
        Collect(*report);
    }
    if (ends) {
        m_Playback.Forget();
    }
}

void CSession::SendError(int error) {
    if (const auto report = m_Playback.ReportError(error)) {
        Collect(*report);
    }
}

bool CSession::Execute(int code, std::int32_t value, const std::string& text) {
    if (!m_bOn || !m_Playback.TakesFree(code)) {
        return false;
    }
    Record record = m_Playback.MakeRecord({code, value, 0});
    record.customInfo = Cut(text, 4096);
    Deliver(std::move(record));
    return true;
}

void CSession::Collect(const Event& event) {
    if (m_bOn) {
        Deliver(m_Playback.MakeRecord(event));
    }
}

void CSession::Deliver(Record record) {
    record.playerID = m_nPlayerID;
    record.serviceID = m_strApp;
    record.serviceVersion = m_strVersion;
    m_Delivery.Push(record, m_World.Now());
}

// One look for the service per call, however long the time was.
void CSession::Pass(std::int64_t milliseconds) {
    m_nUntilLook -= milliseconds;
    if (m_Link == Link::AWAITED && m_nUntilLook <= 0) {
        m_nUntilLook = kBetweenLooks;
        LookForService();
    }
}

void CSession::LookForService() {
    if (m_World.serviceIsThere) {
        m_Link = Link::FOUND;
        ServiceFound();
    } else if (m_Delivery.Waiting() > kMostWaiting) {
        m_Link = Link::GIVEN_UP;
        m_bOn = false;
        GiveUp();
    }
}

void CSession::ServiceFound() {
    m_bOn = m_World.IsKeyOn();
    if (m_bOn) {
        AskForPolicy();
    }
    if (m_bOn) {
        m_Delivery.StartSender();
    } else {
        GiveUp();
    }
}

void CSession::GiveUp() {
    m_Delivery.EndAnalyzer();
    m_Delivery.DropWaiting();
    m_Playback.Forget();
}

// The key is watched once the service is found. A key that cannot be read only stops collection. A
// service that refuses also ends the playback.
void CSession::KeyChanged() {
    if (m_Link != Link::FOUND) {
        return;
    }
    m_bOn = m_World.IsKeyOn();
    if (m_World.keyResult != 0) {
        return;
    }
    if (!m_bOn) {
        m_Delivery.EndAnalyzer();
        m_Delivery.EndSender();
        m_Playback.Forget();
        return;
    }
    AskForPolicy();
    if (!m_bOn) {
        m_Playback.Forget();
        return;
    }
    m_Delivery.StartAnalyzer(m_World.Now());
    m_Delivery.StartSender();
}

}  // namespace model
