// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_STRESS_TORTUREAUDIT_H
#define TALLYRA_TESTS_STRESS_TORTUREAUDIT_H

#include "receiver/ReceiverState.h"

#include <tallyra/TYTypes.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

/// Checks the sessions' calls and records as they arrive: they must be well-formed, each record
/// must belong to its session, and each player's numbered records must arrive in order and at most
/// once. Records may be missing, since services vanish.
///
/// Threads: any; one lock guards all.
class CTortureAudit {
  public:
    static constexpr int kPlayers = 8;
    static constexpr const char* kApplication = "org.example.torture";
    /// Numbered by the players: its parameters are the number and the player.
    static constexpr auto kFreeEvent = static_cast<TY_EVENT_TYPE>(99);

    /// The content of a session.
    static std::string Url(const std::string& session) { return "torture/" + session; }
    static std::string Title(const std::string& session) { return "Session " + session; }

    /// Checks one call with its records; called in the order of arrival.
    void Take(const receiver::Call& call, const std::vector<receiver::ReceivedRecord>& records) {
        const std::lock_guard lock(m_Mutex);
        Check(call.strProblem.empty(), call.strFunction + ": " + call.strProblem);
        for (const auto& received : records) {
            ++m_nRecords;
            Judge(received.strUrl, received.record);
        }
    }

    /// Prints the numbers and the faults.
    /// @param sessions  is the number of sessions, counted from 1
    /// @return whether numbered records arrived without a fault
    bool Report(int sessions) const {
        const std::lock_guard lock(m_Mutex);
        std::printf(
            "%zu records arrived, %zu of them numbered, from %zu of %d sessions: %zu faults\n",
            m_nRecords, m_nNumbered, m_Sessions.size(), sessions, m_nFaults);
        return m_nFaults == 0 && m_nNumbered > 0 &&
               m_Sessions.size() <= static_cast<std::size_t>(sessions);
    }

  private:
    struct Session {
        std::set<std::string> playbacks;
        std::array<int, kPlayers> next{};
        int records = 0;
        bool bStopped = false;
    };

    void Judge(const std::string& url, const receiver::Record& record) {
        const std::string number = url.substr(url.find('/') + 1);
        if (url != Url(number) || record.title != Title(number) ||
            record.serviceId != kApplication) {
            return Check(record, false, "belongs to no session or differs from what was reported");
        }
        Session& session = m_Sessions[url];
        ++session.records;
        JudgePlayback(record, session);
        Check(record, record.event != TY_EVENT_START || session.records == 1,
              "is not its session's first");
        Check(record, !session.bStopped || record.event == TY_EVENT_PLAYING_TIME,
              "came after the STOP");
        session.bStopped = session.bStopped || record.event == TY_EVENT_STOP;
        if (record.event == kFreeEvent) {
            JudgeOrder(record, session);
        }
    }

    // When the key goes off, a player may report after the playback has ended: that record has
    // none.
    void JudgePlayback(const receiver::Record& record, Session& session) {
        if (record.playbackId.empty()) {
            return;
        }
        const bool isNew = session.playbacks.insert(record.playbackId).second;
        Check(record, !isNew || m_Playbacks.insert(record.playbackId).second,
              "has another session's playback");
        Check(record, session.playbacks.size() == 1,
              "has a second playback of a session that started one");
    }

    void JudgeOrder(const receiver::Record& record, Session& session) {
        ++m_nNumbered;
        const auto player = static_cast<std::size_t>(record.param2);
        if (player >= session.next.size()) {
            return Check(record, false, "has no player");
        }
        Check(record, record.param1 >= session.next[player], "came twice or out of order");
        session.next[player] = record.param1 + 1;
    }

    void Check(const receiver::Record& record, bool holds, const char* pFault) {
        Check(holds, std::to_string(record.event) + " " + std::to_string(record.param1) + " " +
                         std::to_string(record.param2) + " of \"" + record.title + "\" " + pFault);
    }

    // Prints the first faults.
    void Check(bool holds, const std::string& fault) {
        constexpr std::size_t kFaultsPrinted = 20;
        if (!holds && ++m_nFaults <= kFaultsPrinted) {
            std::printf("FAULT %s\n", fault.c_str());
        }
    }

    mutable std::mutex m_Mutex;
    std::map<std::string, Session> m_Sessions;  // by URL
    std::set<std::string> m_Playbacks;
    std::size_t m_nRecords = 0;
    std::size_t m_nNumbered = 0;
    std::size_t m_nFaults = 0;
};

#endif  // TALLYRA_TESTS_STRESS_TORTUREAUDIT_H
