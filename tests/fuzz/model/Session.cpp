// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Session.h"

#include <utility>

namespace model {

namespace {

// Without an analyzer thread at most that many records are queued.
constexpr std::size_t kMostNotAnalysed = 200;
// With more queued records the collector stops waiting for the service.
constexpr std::size_t kMostWaiting = 200;
// Between looks for the service, in ms.
constexpr std::int64_t kBetweenLooks = 1000;

void Move(std::deque<Record>& from, std::vector<Record>& to) {
    to.insert(to.end(), from.begin(), from.end());
    from.clear();
}

// -1 is no position.
std::optional<std::int32_t> Position(std::int32_t position) {
    return position == -1 ? std::nullopt : std::optional(position);
}

// Truncates to 32 bits.
std::int32_t Wrapped(std::int64_t number) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(number));
}

// Milliseconds between two times, rounded down, also for a clock that was set back.
std::int32_t Milliseconds(Time from, Time to) {
    constexpr std::int64_t kNsPerSec = 1'000'000'000;
    constexpr std::int64_t kNsPerMs = 1'000'000;
    const std::int64_t ns = (std::int64_t{to.sec} - from.sec) * kNsPerSec + to.nsec - from.nsec;
    return Wrapped(ns / kNsPerMs - (ns % kNsPerMs < 0 ? 1 : 0));
}

Record Copy(const Record& record, int event, Time now) {
    Record copy = record;
    copy.event = event;
    copy.time = now;
    return copy;
}

// A length begins at the time of the record that opened it and ends now.
Record Length(const Record& record, int event, Time began, Time now) {
    Record length = Copy(record, event, now);
    length.param1 = Milliseconds(began, now);
    return length;
}

}  // namespace

std::optional<Record> CDelivery::Measure(const Record& record, Time now) {
    if (record.event == 6) {
        return Length(record, 21, m_Started, now);
    }
    if (record.event == 5 && m_StallBegan) {
        return Length(record, 22, *std::exchange(m_StallBegan, std::nullopt), now);
    }
    const bool unpaired = record.event == 5 || m_StallBegan.has_value();
    if (record.event == 4) {
        m_StallBegan = record.time;
    }
    return unpaired ? std::optional(Copy(record, 202, now)) : std::nullopt;
}

std::optional<Record> CDelivery::Derive(const Record& record, Time now) {
    switch (record.event) {
        case 1:
            m_Started = record.time;
            m_Anchor.reset();
            return std::nullopt;
        case 2:
        case 3: {
            Record played = Copy(record, 20, now);
            played.param2 = m_Anchor ? Wrapped(std::int64_t{record.param1} - *m_Anchor) : 0;
            // STOP ends the stall and keeps the anchor; PAUSE keeps the stall and drops the anchor.
            if (record.event == 2) {
                m_StallBegan.reset();
            } else {
                m_Anchor.reset();
            }
            return played;
        }
        case 4:
        case 5:
        case 6:
            return Measure(record, now);
        case 8:
            m_Anchor = m_Anchor ? m_Anchor : Position(record.param1);
            return std::nullopt;
        case 20:
        case 204:
            m_Anchor = Position(record.param1);
            return std::nullopt;
        default:
            return std::nullopt;
    }
}

void CDelivery::Push(const Record& record, Time now) {
    if (m_bAnalyzes) {
        Analyse(record, now);
    } else if (m_NotAnalysed.size() < kMostNotAnalysed) {
        m_NotAnalysed.push_back(record);
    }
}

void CDelivery::Analyse(const Record& record, Time now) {
    PassOn(record);
    if (const auto derived = Derive(record, now)) {
        PassOn(*derived);
    }
}

void CDelivery::PassOn(const Record& record) {
    switch (m_Sender) {
        case Sender::NOT_STARTED:
            m_Waiting.push_back(record);
            break;
        case Sender::RUNNING:
            m_Sent.push_back(record);
            break;
        default:
            m_MaybeSent.push_back(record);
    }
}

// A started sender sends what it did not get before its end.
void CDelivery::StartAnalyzer(Time now) {
    Move(m_MaybeSent, m_Sent);
    if (!m_bAnalyzes) {
        for (const Record& record : m_NotAnalysed) {
            Analyse(record, now);
        }
        m_NotAnalysed.clear();
    }
}

void CDelivery::StartSender() {
    if (m_Sender == Sender::NOT_STARTED) {
        m_Sender = Sender::RUNNING;
        Move(m_Waiting, m_Sent);
    }
}

void CDelivery::EndSender() {
    if (m_Sender == Sender::RUNNING) {
        m_Sender = Sender::ENDED;
    }
}

CSession::CSession(const World& world, const std::optional<std::string>& appId, int playerID)
    : m_World(world),
      m_Playback(world),
      m_strApp(Cut(appId.value_or(""), 50)),
      m_strVersion(appId ? Cut(world.version, 12) : ""),
      m_nPlayerID(static_cast<std::int8_t>(playerID)),
      m_bOn(world.IsKeyOn()),
      m_nUntilLook(kBetweenLooks) {}

// The state of the playback changes also while collection is off.
void CSession::SendEvent(int event, std::int32_t param1, std::int32_t param2) {
    const bool ends = m_Playback.IsUnderWay() && event == 2;
    Collect(m_Playback.Report(event, param1, param2));
    if (ends) {
        m_Playback.Forget();
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

void CSession::Collect(const std::optional<Event>& event) {
    if (m_bOn && event) {
        Deliver(m_Playback.MakeRecord(*event));
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
        m_bOn = m_World.IsKeyOn() && m_World.policyAllows;
    } else if (m_Delivery.Waiting() > kMostWaiting) {
        m_Link = Link::GIVEN_UP;
        m_bOn = false;
    } else {
        return;
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
    m_bOn = m_World.policyAllows;
    if (!m_bOn) {
        m_Playback.Forget();
        return;
    }
    m_Delivery.StartAnalyzer(m_World.Now());
    m_Delivery.StartSender();
}

}  // namespace model
