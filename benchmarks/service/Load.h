// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_SERVICE_LOAD_H
#define TALLYRA_BENCHMARKS_SERVICE_LOAD_H

#include "BatchSender.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

/// The batches of a load.
struct LoadKind {
    int senders = 4;
    /// Whether each record has its own URL; otherwise the records of a playback differ as a
    /// player's do, in event, parameters and time.
    bool distinct = false;
    /// Batches in one playback.
    int batchesOfPlayback = 8;
    /// Batches that a sender prepares and then repeats. 0: it makes each batch when it sends it, so
    /// that no playback repeats.
    int prepared = 32;
};

/// Senders that deliver full batches, each as soon as the previous one was answered, until the
/// object is destroyed or the wanted number was sent.
///
/// Threads: one, besides its own.
class CLoad {
  public:
    /// @param wanted  number of batches of all senders together
    CLoad(const std::string& address, const LoadKind& kind, std::int64_t wanted = INT64_MAX);
    ~CLoad();
    CLoad(const CLoad&) = delete;
    CLoad& operator=(const CLoad&) = delete;

    /// Lets the senders finish their current batch and joins them.
    void Stop();

    /// @return batches accepted so far
    std::int64_t Accepted() const { return m_nAccepted; }
    /// @return batches that failed so far
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

#endif  // TALLYRA_BENCHMARKS_SERVICE_LOAD_H
