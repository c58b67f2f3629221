// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPeers.h"

#include "TYLog.h"

#include <algorithm>
#include <utility>

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

// Bounds the memory that callers who come and go can take.
constexpr std::size_t kPeersKept = 1024;
constexpr std::chrono::minutes kComplaintPeriod{1};
constexpr double kBurstSeconds = 10;

const char* TextOf(TYComplaint complaint) {
    switch (complaint) {
        case TYComplaint::FLOOD:
            return "sends more than it may";
        case TYComplaint::MALFORMED:
            return "sends a body that is not made of values";
        case TYComplaint::FUNCTION:
            return "calls no function of ours";
        case TYComplaint::FOREIGN:
            return "calls what there is not";
        case TYComplaint::ORDER:
            return "sends a batch that is not images and then URLs";
        case TYComplaint::NO_END:
            return "sends a text that does not end";
        case TYComplaint::UNKNOWN_CODE:
            return "sends an event that nothing is known about";
        case TYComplaint::kImageSize:
            return "sends an image that is no record";
        case TYComplaint::URL_COUNT:
            return "sends more or fewer URLs than records";
        default:
            return "sends a batch that is too big";
    }
}

// What is logged must not look like lines that nobody logged.
std::string Printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

// A player may report any code: one that nothing is known about is news, and no fault.
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
            ForgetTheLongestSilent();
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
    // A batch may be more than is left, or more than there ever is: the rest is waited for later.
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
        ++peer.unsaid.at(kind);
        return;
    }
    peer.complained.at(kind) = now;
    const std::size_t unsaid = std::exchange(peer.unsaid.at(kind), 0);
    if (MayLog(now)) {
        TY_LOG_AT(PriorityOf(complaint), __func__, __LINE__,
                  "%s (uid %lld, pid %lld) %s%s; %zu more since it was last said",
                  peer.identity.name.c_str(), OrMinusOne(peer.identity.uid),
                  OrMinusOne(peer.identity.pid), TextOf(complaint), Printable(detail).c_str(),
                  unsaid);
    }
}

bool CTYPeers::MayLog(Clock::time_point now) {
    if (now - m_MinuteBegan >= kComplaintPeriod) {
        m_MinuteBegan = now;
        m_nLines = 0;
    }
    if (++m_nLines == kLinesAMinute) {
        TY_LOG_ERROR("too many peers send what they may not: no more of them is logged for now");
    }
    return m_nLines < kLinesAMinute;
}

void CTYPeers::ForgetTheLongestSilent() {
    m_Peers.erase(
        std::min_element(m_Peers.begin(), m_Peers.end(), [](const auto& left, const auto& right) {
            return left.second.lastSeen < right.second.lastSeen;
        }));
}
