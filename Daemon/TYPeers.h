// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPEERS_H
#define TALLYRA_TYPEERS_H

#include "TYPeerIdentity.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

/// Kinds of misbehaviour; each has its own log line.
enum class TYComplaint {
    FLOOD,          ///< exceeded its rate limit
    MALFORMED,      ///< a body that is not a sequence of values
    FUNCTION,       ///< an unknown function, or arguments that it does not take
    FOREIGN,        ///< an unknown object, interface or method
    ORDER,          ///< a batch that is not images followed by URLs
    IMAGE_SIZE,     ///< an image that does not have the size of a record
    NO_END,         ///< an unterminated string; stored, cut at the end of its field
    UNKNOWN_CODE,   ///< an unknown event code; the record is stored
    URL_COUNT,      ///< a different number of URLs than images
    BATCH_TOO_BIG,  ///< a call of more than kMaxCallBytes
    ANONYMOUS,      ///< a batch from a sender whose user the bus could not tell
    BUSY,           ///< calls that did not fit into the memory for waiting calls
    REFUSED,        ///< records of an application that the policy refuses, or refuses to this user
    COUNT
};

/// What a call exceeds.
enum class TYExcess { NONE, RECORDS, BYTES };

/// The callers on the bus: their credentials, rate limits and logged misbehaviour. Limits belong to
/// the user, so a peer that connects again gets no new budget.
///
/// Threads: one.
class CTYPeers {
  public:
    using Clock = std::chrono::steady_clock;
    /// Asks the bus driver for the credentials of a unique name.
    using Identify = std::function<TYPeerIdentity(const std::string& name)>;

    struct Peer {
        TYPeerIdentity identity;
        Clock::time_point identified;  ///< when the bus was last asked
        Clock::time_point lastSeen;
        std::array<Clock::time_point, static_cast<std::size_t>(TYComplaint::COUNT)> complained{};
        std::array<std::size_t, static_cast<std::size_t>(TYComplaint::COUNT)> suppressed{};
    };

    /// Maximum number of log lines per minute, for all peers together.
    static constexpr std::size_t kLinesAMinute = 60;

    /// A call costs its number of records, at least one, or its bytes divided by this: a record
    /// with a URL of usual length.
    static constexpr double kBytesOfARecord = 5120;

    /// @param recordsPerSecond  rate limit of each user; 0 for no limit. A user may send the
    /// records
    ///                          of ten seconds at once, and the last batch may exceed that.
    CTYPeers(Identify identify, double recordsPerSecond)
        : m_Identify(std::move(identify)), m_dRate(recordsPerSecond) {}

    /// @return the peer of that name; calls Identify the first time, and again at most once a
    /// second
    ///         as long as the user is unknown
    std::shared_ptr<Peer> Get(const std::string& name, Clock::time_point now);

    /// Charges a call to the budget of the peer's user.
    /// @return what the call exceeds; if anything, nothing is charged
    TYExcess Spend(const Peer& peer, std::size_t records, std::size_t bytes, Clock::time_point now);

    /// Logs misbehaviour, at most once a minute for each peer and kind. A peer that reconnects gets
    /// a new name, so kLinesAMinute also bounds the lines of all peers together.
    /// @param detail  may contain text of the peer; unprintable characters are replaced
    void Complain(Peer& peer, TYComplaint complaint, Clock::time_point now,
                  const std::string& detail);

    std::size_t Count() const { return m_Peers.size(); }

  private:
    /// What a user may send now; negative after a large batch.
    struct Budget {
        double records = 0;
        double cost = 0;  ///< records or bytes, whichever is more
        Clock::time_point refilled;
    };

    void EvictLeastRecentlySeen();
    Budget& BudgetOf(const Peer& peer, Clock::time_point now);
    double Burst() const;
    bool MayLog(Clock::time_point now);

    Identify m_Identify;
    double m_dRate;
    std::map<std::string, std::shared_ptr<Peer>> m_Peers;
    std::map<std::int64_t, Budget> m_Budgets;  ///< by user; -1 for all unknown ones
    Clock::time_point m_MinuteBegan;
    std::size_t m_nLines = 0;  ///< logged since m_MinuteBegan
};

#endif  // TALLYRA_TYPEERS_H
