// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Session.h"

#include <array>
#include <cstdio>

namespace model {

namespace {

constexpr std::int32_t kNone = -1;
// A heartbeat is due at this distance from the last one, in ms, and may be a little late.
constexpr std::uint32_t kHeartbeat = 180'000;
constexpr std::uint32_t kLatestHeartbeat = 189'000;
// In its first seconds a playback accepts every free record; then one of each code per minute.
constexpr std::uint32_t kFreeSeconds = 10;
constexpr std::uint32_t kSecondsBetween = 60;

// Thread, second and nanosecond, truncated to 24 characters.
std::string MakeID(unsigned thread, Time time) {
    std::array<char, 25> id{};
    std::snprintf(id.data(), id.size(), "%05u%010u%09u", thread,
                  static_cast<std::uint32_t>(time.sec), static_cast<std::uint32_t>(time.nsec));
    return id.data();
}

}  // namespace

Time World::Now() const {
    constexpr std::int64_t kNsPerSec = 1'000'000'000;
    return clockFails ? Time{}
                      : Time{static_cast<std::int32_t>(realNs / kNsPerSec),
                             static_cast<std::int32_t>(realNs % kNsPerSec)};
}

void CPlayback::NetworkChanged(int result, const std::string& state) {
    if (state == "GATEWAY") {
        SetConnected(result == 0);
    }
}

void CPlayback::SetConnected(bool connected) {
    // The platform's connection types.
    constexpr int kPlatformWifi = 1;
    constexpr int kPlatformEthernet = 3;
    const int type = m_World.connectionTypeResult == 0 ? m_World.connectionType : 0;
    m_nNetwork = !connected ? 0 : type == kPlatformWifi ? 2 : type == kPlatformEthernet ? 1 : -1;
}

int CPlayback::SignalStrength() {
    m_bWifiOpen = m_bWifiOpen || m_World.wifiResult == 0;
    m_bApOpen = m_bApOpen || (m_bWifiOpen && m_World.apResult == 0);
    return m_bApOpen && m_World.rssiResult == 0 ? m_World.rssi : -200;
}

// Content without a title keeps only the path of its URL.
bool CPlayback::MaySet(const Content& content) const {
    return !IsUnderWay() || KeptUrl(content.url, content.title.empty()) == m_Url;
}

void CPlayback::Set(const Content& content) {
    if (!IsUnderWay()) {
        m_Fields = {};
        m_Url = KeptUrl(content.url, content.title.empty());
        m_Fields.url = Valid(*m_Url);
        m_Fields.contentType = content.contentType & 0xFF;
        m_Fields.duration = content.duration;
        m_Now.reference = content.startTime;
    }
    m_Fields.drmType = content.drmType & 0xFF;
    m_Fields.channelID = Cut(content.channelID, 256);
    m_Fields.title = Cut(content.title, 256);
    m_Fields.genre = Cut(content.genre, 68);
    m_Fields.customInfo = Cut(content.customInfo, 4096);
}

Record CPlayback::MakeRecord(const Event& event) const {
    Record record = m_Fields;
    record.networkType = m_nNetwork & 0xFF;
    record.playbackID = m_Now.id;
    record.event = event.code & 0xFF;
    record.param1 = event.param1;
    record.param2 = event.param2;
    record.time = m_World.Now();
    return record;
}

Event CPlayback::Start(std::int32_t param2) {
    const std::int32_t startTime = m_Now.reference;
    m_Now.reference = kNone;
    const Time now = m_World.Now();
    m_nStartSecond = static_cast<std::uint32_t>(now.sec);
    m_Now.id = MakeID(m_World.thread, now);
    return {1, startTime, param2};
}

// Before a START nothing is recorded. A second START becomes an error record.
std::optional<Event> CPlayback::Report(int event, std::int32_t param1, std::int32_t param2) {
    if (!IsUnderWay()) {
        return event == 1 ? std::optional(Start(param2)) : std::nullopt;
    }
    if (event == 1) {
        return Event{203, param1, param2};
    }
    return event == 8 ? ReportPosition(param1, param2) : During(event, param1, param2);
}

// Events without a position of their own carry the last reported one.
Event CPlayback::During(int event, std::int32_t param1, std::int32_t param2) {
    const std::int32_t last = m_Now.last;
    switch (event) {
        case 2:
            return {2, last, param2};
        case 3:
            m_Now.paused = true;
            m_Now.reference = kNone;
            return {3, last, param1};
        case 4:
            return {4, last, m_nNetwork == 2 ? SignalStrength() : param2};
        case 9:
            return {9, last, param1};
        case 6:
            m_Now.renders = true;
            break;
        case 7:
            m_Now.paused = false;
            break;
        case 10:
            m_Now.reanchors = true;
            break;
        default:
            break;
    }
    return {event, param1, param2};
}

// Positions count between RENDER_START and PAUSE. The first one and every heartbeat are recorded; a
// position beyond the heartbeat's limit, or before the reference, is a jump.
std::optional<Event> CPlayback::ReportPosition(std::int32_t position, std::int32_t param2) {
    if (m_Now.paused || !m_Now.renders) {
        return std::nullopt;
    }
    m_Now.last = position;
    if (m_Now.reference == kNone || m_Now.reanchors) {
        m_Now.reference = m_Now.reference == kNone ? position : m_Now.reference;
        m_Now.reanchors = false;
        return Event{8, position, param2};
    }
    const std::int32_t reference = m_Now.reference;
    // A negative distance wraps to a very large one.
    const std::uint32_t distance =
        static_cast<std::uint32_t>(position) - static_cast<std::uint32_t>(reference);
    if (distance < kHeartbeat) {
        return std::nullopt;
    }
    m_Now.reference = position;
    return distance <= kLatestHeartbeat ? Event{20, position, static_cast<std::int32_t>(distance)}
                                        : Event{204, position, reference};
}

// Before a playback an error is recorded only if the content is set.
std::optional<Event> CPlayback::ReportError(int error) const {
    return IsUnderWay() || m_Url ? std::optional(Event{error, 0, 0}) : std::nullopt;
}

bool CPlayback::TakesFree(int code) {
    if (!IsUnderWay() || code < 0 || code > 255) {
        return false;
    }
    // A negative time wraps to a very long one.
    const auto now = static_cast<std::uint32_t>(m_World.Now().sec);
    if (now - m_nStartSecond > kFreeSeconds && now - m_LastFree[code] < kSecondsBetween) {
        return false;
    }
    m_LastFree[code] = now;
    return true;
}

}  // namespace model
