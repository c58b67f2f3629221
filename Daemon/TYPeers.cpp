// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPeers.h"

#include "TYLog.h"

#include <algorithm>
#include <utility>

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

// Bounds the memory used for callers.
constexpr std::size_t kPeersKept = 1024;
constexpr std::chrono::minutes kComplaintPeriod{1};
constexpr double kBurstSeconds = 10;

const char* TextOf(TYComplaint complaint) {
    switch (complaint) {
        case TYComplaint::FLOOD:
            return "exceeds its rate limit";
        case TYComplaint::MALFORMED:
            return "sent a malformed body";
        case TYComplaint::FUNCTION:
            return "called an unknown function or passed wrong arguments";
        case TYComplaint::FOREIGN:
            return "called an unknown object, interface or method";
        case TYComplaint::ORDER:
            return "sent a batch that is not images followed by URLs";
        case TYComplaint::NO_END:
            return "sent an unterminated string";
        case TYComplaint::UNKNOWN_CODE:
            return "sent an unknown event code";
        case TYComplaint::IMAGE_SIZE:
            return "sent an image of the wrong size";
        case TYComplaint::URL_COUNT:
            return "sent a different number of URLs than records";
        case TYComplaint::BATCH_TOO_BIG:
            return "sent a batch that is too large";
        case TYComplaint::COUNT:
            break;
    }
    return "";
}

// Prevents a peer from forging log lines or sending control sequences to a terminal.
std::string Printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

// Players may report codes of their own, so an unknown code is not an error.
int PriorityOf(TYComplaint complaint) {
    return complaint == TYComplaint::UNKNOWN_CODE ? LOGSVC_INFO : LOGSVC_ERROR;
}

long long OrMinusOne(const std::optional<std::int64_t>& number) {
    return number.value_or(-1);
}

}  // namespace

CTYPeers::Peer& CTYPeers::Get(const std::string& name, Clock::time_point now) {
    auto found = m_Peers.find(name);
    if (found == m_Peers.end()) {
        if (m_Peers.size() >= kPeersKept) {
            EvictLeastRecentlySeen();
        }
        found = m_Peers.emplace(name, Peer{}).first;
        found->second.identity = m_Identify(name);
        found->second.budget = Burst();
        found->second.refilled = now;
    }
    found->second.lastSeen = now;
    return found->second;
}

bool CTYPeers::Spend(Peer& peer, double records, Clock::time_point now) const {
    if (m_dRate <= 0) {
        return true;
    }
    const std::chrono::duration<double> since = now - peer.refilled;
    peer.budget = std::min(peer.budget + since.count() * m_dRate, Burst());
    peer.refilled = now;
    // A batch may exceed the budget, even the full one: the budget then goes negative, and further
    // calls are refused until it is refilled.
    if (peer.budget < 1) {
        return false;
    }
    peer.budget -= records;
    return true;
}

double CTYPeers::Burst() const {
    return std::max(m_dRate * kBurstSeconds, 1.0);
}

void CTYPeers::Complain(Peer& peer, TYComplaint complaint, Clock::time_point now,
                        const std::string& detail) {
    const auto kind = static_cast<std::size_t>(complaint);
    if (peer.complained.at(kind) != Clock::time_point{} &&
        now - peer.complained.at(kind) < kComplaintPeriod) {
        ++peer.suppressed.at(kind);
        return;
    }
    peer.complained.at(kind) = now;
    const std::size_t suppressed = std::exchange(peer.suppressed.at(kind), 0);
    if (MayLog(now)) {
        TY_LOG_AT(PriorityOf(complaint), __func__, __LINE__,
                  "%s (uid %lld, pid %lld) %s%s (%zu more since last logged)",
                  peer.identity.name.c_str(), OrMinusOne(peer.identity.uid),
                  OrMinusOne(peer.identity.pid), TextOf(complaint), Printable(detail).c_str(),
                  suppressed);
    }
}

bool CTYPeers::MayLog(Clock::time_point now) {
    if (now - m_MinuteBegan >= kComplaintPeriod) {
        m_MinuteBegan = now;
        m_nLines = 0;
    }
    if (++m_nLines == kLinesAMinute) {
        TY_LOG_ERROR("too many misbehaving peers: logging no more of them for a minute");
    }
    return m_nLines < kLinesAMinute;
}

void CTYPeers::EvictLeastRecentlySeen() {
    m_Peers.erase(
        std::min_element(m_Peers.begin(), m_Peers.end(), [](const auto& left, const auto& right) {
            return left.second.lastSeen < right.second.lastSeen;
        }));
}
