// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPEERS_H
#define TALLYRA_TYPEERS_H

#include "TYStore.h"

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
    IMAGE_SIZE,     ///< an image that is no record
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

    /// @param recordsPerSecond  what a peer may send in the long run; 0 for any number. It may send
    ///                          ten seconds' worth at once.
    CTYPeers(Identify identify, double recordsPerSecond)
        : m_Identify(std::move(identify)), m_dRate(recordsPerSecond) {}

    /// @return the peer of that name, asked about when it is a new one
    Peer& Get(const std::string& name, Clock::time_point now);

    /// Takes some of what the peer may send.
    /// @return whether it had that much left; nothing was taken otherwise
    bool Spend(Peer& peer, double records, Clock::time_point now) const;

    /// Says what a peer got wrong, once a minute for each kind.
    static void Complain(Peer& peer, TYComplaint complaint, Clock::time_point now,
                         const char* pDetail);

    std::size_t Count() const { return m_Peers.size(); }

  private:
    void ForgetTheLongestSilent();

    Identify m_Identify;
    double m_dRate;
    std::map<std::string, Peer> m_Peers;
};

#endif  // TALLYRA_TYPEERS_H
