// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPeers.h"

#include "TYLog.h"

#include <algorithm>

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
        case TYComplaint::IMAGE_SIZE:
            return "sends an image that is no record";
        case TYComplaint::URL_COUNT:
            return "sends more or fewer URLs than records";
        default:
            return "sends a batch that is too big";
    }
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
        found->second.budget = m_dRate * kBurstSeconds;
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
    peer.budget = std::min(peer.budget + since.count() * m_dRate, m_dRate * kBurstSeconds);
    peer.refilled = now;
    if (peer.budget < records) {
        return false;
    }
    peer.budget -= records;
    return true;
}

void CTYPeers::Complain(Peer& peer, TYComplaint complaint, Clock::time_point now,
                        const char* pDetail) {
    const auto kind = static_cast<std::size_t>(complaint);
    if (peer.complained.at(kind) != Clock::time_point{} &&
        now - peer.complained.at(kind) < kComplaintPeriod) {
        ++peer.unsaid.at(kind);
        return;
    }
    TY_LOG_ERROR("%s (uid %lld, pid %lld) %s%s; %zu more since it was last said",
                 peer.identity.name.c_str(), OrMinusOne(peer.identity.uid),
                 OrMinusOne(peer.identity.pid), TextOf(complaint), pDetail, peer.unsaid.at(kind));
    peer.complained.at(kind) = now;
    peer.unsaid.at(kind) = 0;
}

void CTYPeers::ForgetTheLongestSilent() {
    m_Peers.erase(
        std::min_element(m_Peers.begin(), m_Peers.end(), [](const auto& left, const auto& right) {
            return left.second.lastSeen < right.second.lastSeen;
        }));
}
