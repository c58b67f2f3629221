// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "receiver/Events.h"

#include <algorithm>
#include <array>

namespace receiver {
namespace {

constexpr std::uint8_t kStop = 2;
constexpr std::uint8_t kPause = 3;
constexpr std::uint8_t kPlayingTime = 20;
constexpr std::uint8_t kTimeToRender = 21;
constexpr std::uint8_t kBufferingTime = 22;
constexpr std::uint8_t kBufferingMismatch = 202;

struct Event {
    std::uint8_t code;
    const char* pName;
    const char* pFirst;   // meaning of the first parameter; null when it has none
    const char* pSecond;  // the same for the second
};

constexpr std::array kEvents = {
    Event{1, "START", "start", nullptr},
    Event{kStop, "STOP", "position", nullptr},
    Event{kPause, "PAUSE", "position", nullptr},
    Event{4, "BUFFERING_START", "position", "signal"},
    Event{5, "BUFFERING_END", nullptr, nullptr},
    Event{6, "RENDER_START", nullptr, nullptr},
    Event{7, "RESUME", nullptr, nullptr},
    Event{8, "PLAYBACK_TIME", "position", nullptr},
    Event{9, "SEEK", "position", "target"},
    Event{10, "SEEK_COMPLETE", nullptr, nullptr},
    Event{kPlayingTime, "PLAYING_TIME", "position", "elapsed"},
    Event{kTimeToRender, "TIME_TO_RENDER", "length", nullptr},
    Event{kBufferingTime, "BUFFERING_TIME", "length", nullptr},
    Event{201, "ERROR_URL_CHANGED", nullptr, nullptr},
    Event{kBufferingMismatch, "ERROR_BUFFERING_MISMATCH", nullptr, nullptr},
    Event{203, "ERROR_DUPLICATED_START", nullptr, nullptr},
    Event{204, "ERROR_PLAYBACK_TIME_JUMP", "position", "reference"},
    Event{205, "ERROR_DUPLICATED_RENDER_START", nullptr, nullptr},
};

const Event* Find(std::uint8_t code) {
    const auto* const pFound = std::find_if(kEvents.begin(), kEvents.end(),
                                            [code](const Event& e) { return e.code == code; });
    return pFound == kEvents.end() ? nullptr : pFound;
}

// A parameter without a meaning is shown only when it is set.
void Append(std::string& strText, const char* pLabel, const char* pFallback, std::int32_t value) {
    if (pLabel == nullptr && value == 0) {
        return;
    }
    strText += strText.empty() ? "" : " ";
    strText += pLabel == nullptr ? pFallback : pLabel;
    strText += "=" + std::to_string(value);
}

}  // namespace

std::string EventName(std::uint8_t code) {
    const Event* pEvent = Find(code);
    return pEvent == nullptr ? "CODE " + std::to_string(code) : pEvent->pName;
}

std::string DescribeParameters(const Record& record) {
    const Event* pEvent = Find(record.event);
    std::string strText;
    Append(strText, pEvent == nullptr ? nullptr : pEvent->pFirst, "param1", record.param1);
    Append(strText, pEvent == nullptr ? nullptr : pEvent->pSecond, "param2", record.param2);
    return strText;
}

Origin COriginTracker::Next(const Record& record) {
    std::uint8_t& last = m_lastEvents[{record.serviceId, record.playbackId}];
    const std::uint8_t before = std::exchange(last, record.event);
    switch (record.event) {
        case kTimeToRender:
        case kBufferingTime:
        case kBufferingMismatch:
            return Origin::Derived;
        case kPlayingTime:
            return before == kStop || before == kPause ? Origin::Derived : Origin::Heartbeat;
        default:
            return Origin::Reported;
    }
}

}  // namespace receiver
