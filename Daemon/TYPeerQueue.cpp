// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPeerQueue.h"

#include <algorithm>
#include <utility>

// Problem: the bus delivers the calls of all peers through one connection, in the order of their
// arrival. Served in that order, a call waits until everything that arrived before it is stored, so
// a peer that sends faster than the service stores delays all others. It also fills the memory in
// which calls wait.
//
// Idea: the service reads ahead (see CTYServiceBus) and sorts calls by user and peer. It serves one
// call of each user in turn, and among a user's peers one of each in turn. A peer with one call
// waits for at most one call of each other user and of each other peer of its own user, however
// many calls those have sent. Users come first because a process may have any number of
// connections, but cannot change its user.
//
// Calls without records, as Kick and GetPolicyInfo, are quick to serve. They have turns of their
// own, in front of all batches, and may overtake a batch of their own peer. Batches of one peer
// never overtake one another.
//
// All waiting calls share one limit of memory. Beyond it, the newest call of the peer that holds
// most is refused: the peer that causes the excess loses calls, and peers with few calls lose none.
//
// Turns are taken in the order of user number and peer name, starting behind the last one. So no
// list of turns has to be kept up to date when peers come and go.
//
// Always true:
// - m_Users has no user without peers, and no peer without calls.
// - The bytes of the queue, of each user and of each peer are the sums of their calls' bytes.

namespace {

std::int64_t UserOf(const CTYPeers::Peer& peer) {
    return peer.identity.uid.value_or(-1);
}

// Finds the first entry behind the key, starting again at the beginning behind the last.
template <class Map>
typename Map::iterator NextBehind(Map& map, const typename Map::key_type& key) {
    const auto next = map.upper_bound(key);
    return next == map.end() ? map.begin() : next;
}

template <class Map>
auto LargestOf(Map& map) {
    return std::max_element(map.begin(), map.end(), [](const auto& left, const auto& right) {
        return left.second.bytes < right.second.bytes;
    });
}

}  // namespace

void CTYPeerQueue::Add(TYWaitingCall call) {
    (call.isQuick ? m_Quick : m_Slow).Add(std::move(call));
}

std::optional<TYWaitingCall> CTYPeerQueue::Take() {
    if (IsEmpty()) {
        return std::nullopt;
    }
    return (m_Quick.IsEmpty() ? m_Slow : m_Quick).TakeNext();
}

std::optional<TYWaitingCall> CTYPeerQueue::TakeExcess() {
    if (Bytes() <= m_nMaxBytes) {
        return std::nullopt;
    }
    return (m_Quick.Bytes() > m_Slow.Bytes() ? m_Quick : m_Slow).TakeNewestOfLargest();
}

bool CTYPeerQueue::IsTooMuch(const CTYPeers::Peer& peer, std::size_t bytes) const {
    return Bytes() + bytes > m_nMaxBytes && m_Slow.Bytes() + bytes >= m_Quick.Bytes() &&
           m_Slow.WouldBeLargest(peer, bytes);
}

bool CTYPeerQueue::CTurns::WouldBeLargest(const CTYPeers::Peer& peer, std::size_t bytes) const {
    const auto user = m_Users.find(UserOf(peer));
    if (user == m_Users.end() || user->second.bytes + bytes <= LargestOf(m_Users)->second.bytes) {
        return false;
    }
    const auto& peers = user->second.peers;
    const auto known = peers.find(peer.identity.name);
    const std::size_t held = known != peers.end() ? known->second.bytes : 0;
    return held + bytes > LargestOf(peers)->second.bytes;
}

void CTYPeerQueue::CTurns::Add(TYWaitingCall call) {
    User& user = m_Users[UserOf(*call.peer)];
    Peer& peer = user.peers[call.peer->identity.name];
    for (std::size_t* const pBytes : {&m_nBytes, &user.bytes, &peer.bytes}) {
        *pBytes += call.bytes;
    }
    peer.calls.push_back(std::move(call));
}

TYWaitingCall CTYPeerQueue::CTurns::TakeNext() {
    const auto user = NextBehind(m_Users, m_nLast);
    const auto peer = NextBehind(user->second.peers, user->second.last);
    m_nLast = user->first;
    user->second.last = peer->first;
    return Remove(user, peer, false);
}

TYWaitingCall CTYPeerQueue::CTurns::TakeNewestOfLargest() {
    const auto user = LargestOf(m_Users);
    return Remove(user, LargestOf(user->second.peers), true);
}

TYWaitingCall CTYPeerQueue::CTurns::Remove(Users::iterator user, Peers::iterator peer,
                                           bool isNewest) {
    std::deque<TYWaitingCall>& calls = peer->second.calls;
    TYWaitingCall call = std::move(isNewest ? calls.back() : calls.front());
    isNewest ? calls.pop_back() : calls.pop_front();
    for (std::size_t* const pBytes : {&m_nBytes, &user->second.bytes, &peer->second.bytes}) {
        *pBytes -= call.bytes;
    }
    if (calls.empty()) {
        user->second.peers.erase(peer);
    }
    if (user->second.peers.empty()) {
        m_Users.erase(user);
    }
    return call;
}
