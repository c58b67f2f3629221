// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPEERS_H
#define TALLYRA_TYPEERS_H

#include "TYPeerIdentity.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <string>

/// What a peer may get wrong; each has a log line of its own.
enum class TYComplaint {
    FLOOD,          ///< more records or calls than it may send
    MALFORMED,      ///< a body that is not made of values
    FUNCTION,       ///< a function that there is not, or arguments that it does not take
    FOREIGN,        ///< another object, interface or method
    ORDER,          ///< arguments of a batch that are not images and then URLs
    kImageSize,     ///< an image that is no record
    NO_END,         ///< a text that fills its field without a NUL; kept up to the field's end
    UNKNOWN_CODE,   ///< an event that nothing is known about; kept
    URL_COUNT,      ///< more or fewer URLs than images
    BATCH_TOO_BIG,  ///< more bytes than a batch may have
    COUNT
};

/// Those who call: who they are, how much they have sent lately, and what was said about them.
///
/// Threads: one.
class CTYPeers {
  public:
    using Clock = std::chrono::steady_clock;
    /// Asks the bus driver about a unique name.
    using Identify = std::function<TYPeerIdentity(const std::string& name)>;

    struct Peer {
        TYPeerIdentity identity;
        double budget = 0;  ///< records that it may send now
        Clock::time_point refilled;
        Clock::time_point lastSeen;
        std::array<Clock::time_point, static_cast<std::size_t>(TYComplaint::COUNT)> complained{};
        std::array<std::size_t, static_cast<std::size_t>(TYComplaint::COUNT)> unsaid{};
    };

    /// Lines a minute that all complaints together may make.
    static constexpr std::size_t kLinesAMinute = 60;

    /// @param recordsPerSecond  what a peer may send in the long run; 0 for any number. It may send
    ///                          ten seconds' worth at once, and one batch more than that.
    CTYPeers(Identify identify, double recordsPerSecond)
        : m_Identify(std::move(identify)), m_dRate(recordsPerSecond) {}

    /// @return the peer of that name, asked about when it is a new one
    Peer& Get(const std::string& name, Clock::time_point now);

    /// Takes some of what the peer may send.
    /// @return whether it had that much left; nothing was taken otherwise
    bool Spend(Peer& peer, double records, Clock::time_point now) const;

    /// Says what a peer got wrong, once a minute for each kind. Peers who leave and come back under
    /// new names are bounded by kLinesAMinute.
    /// @param detail  may be anything that the peer sent: only what is printable is logged
    void Complain(Peer& peer, TYComplaint complaint, Clock::time_point now,
                  const std::string& detail);

    std::size_t Count() const { return m_Peers.size(); }

  private:
    void ForgetTheLongestSilent();
    double Burst() const;
    bool MayLog(Clock::time_point now);

    Identify m_Identify;
    double m_dRate;
    std::map<std::string, Peer> m_Peers;
    Clock::time_point m_MinuteBegan;
    std::size_t m_nLines = 0;  ///< since then
};

#endif  // TALLYRA_TYPEERS_H
