// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TortureAudit.h"

#include <cstdio>

namespace {

constexpr const char* kUrlHead = "torture/";
constexpr std::size_t kFaultsKept = 20;

std::string Text(const receiver::Record& record) {
    return std::to_string(record.event) + " " + std::to_string(record.param1) + " " +
           std::to_string(record.param2) + " of \"" + record.title + "\"";
}

}  // namespace

std::string CTortureAudit::Url(int session) {
    return kUrlHead + std::to_string(session);
}

std::string CTortureAudit::Title(int session) {
    return "Session " + std::to_string(session);
}

void CTortureAudit::Take(const receiver::Call& call,
                         const std::vector<receiver::ReceivedRecord>& records) {
    const std::lock_guard lock(m_Mutex);
    if (!call.strProblem.empty()) {
        AddFault(call.strFunction + ": " + call.strProblem);
    }
    for (const auto& received : records) {
        ++m_nRecords;
        Judge(received);
    }
}

void CTortureAudit::Judge(const receiver::ReceivedRecord& received) {
    const receiver::Record& record = received.record;
    const std::size_t slash = received.strUrl.find('/');
    const std::string number = received.strUrl.substr(slash + 1);
    if (received.strUrl != kUrlHead + number || record.title != "Session " + number ||
        record.serviceId != kApplication) {
        AddFault(Text(record) + " belongs to no session or differs from what was reported");
        return;
    }
    Session& session = m_Sessions[received.strUrl];
    ++session.records;
    JudgePlayback(record, session);
    JudgeOrder(record, session);
}

// When the key goes off, a player may report after the playback has ended: that record has none.
void CTortureAudit::JudgePlayback(const receiver::Record& record, Session& session) {
    if (record.playbackId.empty()) {
        return;
    }
    if (session.playbacks.insert(record.playbackId).second &&
        !m_Playbacks.insert(record.playbackId).second) {
        AddFault(Text(record) + " has another session's playback");
    }
    if (session.playbacks.size() > 1) {
        AddFault(Text(record) + " has a second playback of a session that started one");
    }
}

void CTortureAudit::JudgeOrder(const receiver::Record& record, Session& session) {
    if (record.event == TY_EVENT_START && session.records > 1) {
        AddFault(Text(record) + " is not its session's first");
    }
    if (session.bStopped && record.event != TY_EVENT_PLAYING_TIME) {
        AddFault(Text(record) + " came after the STOP");
    }
    session.bStopped = session.bStopped || record.event == TY_EVENT_STOP;
    if (record.event != kFreeEvent) {
        return;
    }
    ++m_nNumbered;
    const auto player = static_cast<std::size_t>(record.param2);
    if (player >= session.next.size()) {
        AddFault(Text(record) + " has no player");
        return;
    }
    int& next = session.next[player];
    if (record.param1 < next) {
        AddFault(Text(record) + " came twice or out of order");
    }
    next = record.param1 + 1;
}

void CTortureAudit::AddFault(const std::string& fault) {
    ++m_nFaults;
    if (m_Faults.size() < kFaultsKept) {
        m_Faults.push_back(fault);
    }
}

bool CTortureAudit::Report(int sessions) const {
    const std::lock_guard lock(m_Mutex);
    for (const std::string& fault : m_Faults) {
        std::printf("FAULT %s\n", fault.c_str());
    }
    std::printf("%zu records arrived, %zu of them numbered, from %zu of %d sessions: %zu faults\n",
                m_nRecords, m_nNumbered, m_Sessions.size(), sessions, m_nFaults);
    return m_nFaults == 0 && m_nNumbered > 0 &&
           m_Sessions.size() <= static_cast<std::size_t>(sessions);
}
