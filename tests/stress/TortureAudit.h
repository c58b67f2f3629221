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

/// Judges what arrives from the sessions of the torture, while it arrives: calls and records have
/// to be well-formed, each record has to be one of its session's, and what a player numbered has to
/// come in that order and once. Records may be missing: services go away with them.
///
/// Threads: any; one lock guards all.
class CTortureAudit {
  public:
    static constexpr int kPlayers = 8;
    static constexpr const char* kApplication = "org.example.torture";
    /// The event that players number: its parameters are the number and the player.
    static constexpr auto kFreeEvent = static_cast<TY_EVENT_TYPE>(99);

    /// What a session says of its content.
    static std::string Url(int session);
    static std::string Title(int session);

    /// Takes one call with its records, in the order of arrival.
    void Take(const receiver::Call& call, const std::vector<receiver::ReceivedRecord>& records);

    /// Prints what arrived and what was wrong with it.
    /// @param sessions  how many there were, numbered from 1
    /// @return whether something arrived and nothing was wrong
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
