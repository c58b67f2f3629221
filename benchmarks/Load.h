// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LOAD_H
#define TALLYRA_BENCHMARKS_LOAD_H

#include "BatchSender.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

/// What the batches of a load are made of.
struct LoadKind {
    int senders = 4;
    /// Whether each record has a URL of its own, which leaves it nothing in common with the one
    /// before; else a playback's records differ as a player's do: in event, parameters and time.
    bool distinct = false;
    /// Batches of one playback.
    int batchesOfPlayback = 8;
    /// Batches that a sender has ready; it begins anew behind the last one. 0: it makes each one
    /// when its turn comes, so that no playback comes twice.
    int prepared = 32;
};

/// Senders that deliver full batches, one after the other, each as soon as the one before was
/// answered, until the object goes or as many as wanted were accepted.
///
/// Threads: one, beside its own.
class CLoad {
  public:
    /// @param wanted  batches, all senders together
    CLoad(const std::string& address, const LoadKind& kind, std::int64_t wanted = INT64_MAX);
    ~CLoad();
    CLoad(const CLoad&) = delete;
    CLoad& operator=(const CLoad&) = delete;

    /// Has the senders finish the batch in hand, and end.
    void Stop();

    /// @return batches that were accepted so far
    std::int64_t Accepted() const { return m_nAccepted; }
    /// @return batches that were not
    std::int64_t Failed() const { return m_nFailed; }

  private:
    void Run(const std::string& address, const LoadKind& kind, int sender);
    void Send(CBatchSender& bus, const DBusMessage* pCall);
    bool TakeTurn() { return !m_bStop && m_nTurns++ < m_nWanted; }

    const std::int64_t m_nWanted;
    std::atomic<bool> m_bStop = false;
    std::atomic<std::int64_t> m_nTurns = 0;
    std::atomic<std::int64_t> m_nAccepted = 0;
    std::atomic<std::int64_t> m_nFailed = 0;
    std::vector<std::thread> m_Senders;
};

#endif  // TALLYRA_BENCHMARKS_LOAD_H
