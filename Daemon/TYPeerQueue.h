// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPEERQUEUE_H
#define TALLYRA_TYPEERQUEUE_H

#include "TYCallShape.h"
#include "TYMessagePtr.h"
#include "TYPeers.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

/// A call that waits for its turn.
struct TYWaitingCall {
    TYMessagePtr message;
    std::shared_ptr<CTYPeers::Peer> peer;
    TYPeerIdentity sender;  ///< of the peer, when the call arrived
    std::size_t bytes = 0;  ///< memory that the message takes
    bool isQuick = false;   ///< takes next to no time to serve, so it need not wait behind batches
    TYCallShape shape;
};

/// Calls that wait for their turn, by user and by peer.
///
/// Threads: one.
class CTYPeerQueue {
  public:
    /// Default limit for all waiting calls together, in bytes.
    static constexpr std::size_t kMaxBytes = std::size_t{16} << 20;

    explicit CTYPeerQueue(std::size_t maxBytes = kMaxBytes) : m_nMaxBytes(maxBytes) {}

    /// Appends a call to its peer's calls. May exceed the limit, until TakeExcess returns nothing.
    void Add(TYWaitingCall call);

    /// @return the next call: quick ones first, then of each user and each of its peers in turn;
    ///         nothing if no call waits
    std::optional<TYWaitingCall> Take();

    /// @return while the calls exceed the limit, the newest call of the peer that holds most, of
    /// the
    ///         user that holds most; nothing otherwise
    std::optional<TYWaitingCall> TakeExcess();

    /// @return whether a slow call of this peer would be taken out again by TakeExcess
    bool IsTooMuch(const CTYPeers::Peer& peer, std::size_t bytes) const;

    bool IsEmpty() const { return m_Quick.IsEmpty() && m_Slow.IsEmpty(); }
    bool HasQuick() const { return !m_Quick.IsEmpty(); }
    std::size_t Bytes() const { return m_Quick.Bytes() + m_Slow.Bytes(); }

  private:
    /// The calls of one kind.
    class CTurns {
      public:
        void Add(TYWaitingCall call);
        TYWaitingCall TakeNext();
        TYWaitingCall TakeNewestOfLargest();
        /// @return whether the peer would hold most with that many bytes more
        bool WouldBeLargest(const CTYPeers::Peer& peer, std::size_t bytes) const;
        bool IsEmpty() const { return m_Users.empty(); }
        std::size_t Bytes() const { return m_nBytes; }

      private:
        struct Peer {
            std::deque<TYWaitingCall> calls;
            std::size_t bytes = 0;
        };
        struct User {
            std::map<std::string, Peer> peers;
            std::string last;  ///< peer that had the last turn
            std::size_t bytes = 0;
        };
        using Users = std::map<std::int64_t, User>;
        using Peers = std::map<std::string, Peer>;

        TYWaitingCall Remove(Users::iterator user, Peers::iterator peer, bool isNewest);

        Users m_Users;
        std::int64_t m_nLast = -1;  ///< user that had the last turn
        std::size_t m_nBytes = 0;
    };

    const std::size_t m_nMaxBytes;
    CTurns m_Quick;
    CTurns m_Slow;
};

#endif  // TALLYRA_TYPEERQUEUE_H
