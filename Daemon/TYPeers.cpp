// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPeers.h"

#include "TYLog.h"

#include <algorithm>
#include <utility>

// Problem: a peer may send without bound, under any number of names: each new connection to the bus
// has a new one. What the service keeps for peers must stay bounded, a limit must not be reset by
// connecting again, and misbehaviour must not fill the log.
//
// Idea: two tables.
//
//   Peers, by unique name: credentials, and what was logged about the peer. At most kPeersKept; the
//   least recently seen goes first. A call that waits for its turn shares its peer, so that its
//   credentials survive the eviction. They are asked for when the first message arrives: later the
//   peer may have left, and the bus no longer knows it.
//
//   Budgets, by user: a token bucket in records. It refills at the rate and holds at most ten
//   seconds' worth. A call costs its records, or its bytes in units of a record if that is more, so
//   that a few records with long URLs are no way around the limit. A second bucket counts records
//   alone: it tells which of both a refused call has exceeded.
//
// Always true:
// - A call that is refused costs nothing.
// - Peers whose user is unknown share one budget.

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

// Bounds the memory used for callers.
constexpr std::size_t kPeersKept = 1024;
constexpr std::size_t kBudgetsKept = 1024;
constexpr std::chrono::seconds kIdentifyPeriod{1};
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
        case TYComplaint::ANONYMOUS:
            return "sent a batch, but the bus does not know its user";
        case TYComplaint::BUSY:
            return "sent more than fits into the memory for waiting calls";
        case TYComplaint::REFUSED:
            return "sent records that the policy refuses";
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

constexpr auto IsRefilledEarlier = [](const auto& left, const auto& right) {
    return left.second.refilled < right.second.refilled;
};

}  // namespace

std::shared_ptr<CTYPeers::Peer> CTYPeers::Get(const std::string& name, Clock::time_point now) {
    auto found = m_Peers.find(name);
    if (found == m_Peers.end()) {
        if (m_Peers.size() >= kPeersKept) {
            EvictLeastRecentlySeen();
        }
        found = m_Peers.emplace(name, std::make_shared<Peer>()).first;
    }
    Peer& peer = *found->second;
    if (!peer.identity.uid &&
        (peer.identified == Clock::time_point{} || now - peer.identified >= kIdentifyPeriod)) {
        peer.identity = m_Identify(name);
        peer.identified = now;
    }
    peer.lastSeen = now;
    return found->second;
}

TYExcess CTYPeers::Spend(const Peer& peer, std::size_t records, std::size_t bytes,
                         Clock::time_point now) {
    if (m_dRate <= 0) {
        return TYExcess::NONE;
    }
    Budget& budget = BudgetOf(peer, now);
    // A batch may exceed the budget, even the full one: the budget then goes negative, and further
    // calls are refused until it is refilled.
    if (budget.records < 1) {
        return TYExcess::RECORDS;
    }
    if (budget.cost < 1) {
        return TYExcess::BYTES;
    }
    const double counted = std::max(static_cast<double>(records), 1.0);
    budget.records -= counted;
    budget.cost -= std::max(counted, static_cast<double>(bytes) / kBytesOfARecord);
    return TYExcess::NONE;
}

CTYPeers::Budget& CTYPeers::BudgetOf(const Peer& peer, Clock::time_point now) {
    const std::int64_t user = peer.identity.uid.value_or(-1);
    if (m_Budgets.size() >= kBudgetsKept && !m_Budgets.contains(user)) {
        // The one refilled longest ago is the most likely to be full again.
        m_Budgets.erase(std::min_element(m_Budgets.begin(), m_Budgets.end(), IsRefilledEarlier));
    }
    Budget& budget = m_Budgets.try_emplace(user, Budget{Burst(), Burst(), now}).first->second;
    const std::chrono::duration<double> since = now - budget.refilled;
    budget.records = std::min(budget.records + since.count() * m_dRate, Burst());
    budget.cost = std::min(budget.cost + since.count() * m_dRate, Burst());
    budget.refilled = now;
    return budget;
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
            return left.second->lastSeen < right.second->lastSeen;
        }));
}
