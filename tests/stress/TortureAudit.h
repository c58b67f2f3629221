// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_STRESS_TORTUREAUDIT_H
#define TALLYRA_TESTS_STRESS_TORTUREAUDIT_H

#include "receiver/ReceiverState.h"

#include <tallyra/TYTypes.h>

#include <array>
#include <cstddef>
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
    static std::string Url(int session);
    static std::string Title(int session);

    /// Checks one call with its records; called in the order of arrival.
    void Take(const receiver::Call& call, const std::vector<receiver::ReceivedRecord>& records);

    /// Prints the numbers and the faults.
    /// @param sessions  is the number of sessions, counted from 1
    /// @return whether numbered records arrived without a fault
    bool Report(int sessions) const;

  private:
    struct Session {
        std::set<std::string> playbacks;
        std::array<int, kPlayers> next{};
        int records = 0;
        bool bStopped = false;
    };

    void Judge(const receiver::ReceivedRecord& received);
    void JudgeOrder(const receiver::Record& record, Session& session);
    void JudgePlayback(const receiver::Record& record, Session& session);
    void AddFault(const std::string& fault);

    mutable std::mutex m_Mutex;
    std::map<std::string, Session> m_Sessions;  // by URL
    std::set<std::string> m_Playbacks;
    std::size_t m_nRecords = 0;
    std::size_t m_nNumbered = 0;
    std::size_t m_nFaults = 0;
    std::vector<std::string> m_Faults;  // the first of them
};

#endif  // TALLYRA_TESTS_STRESS_TORTUREAUDIT_H
