// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_PEERS_PEERS_H
#define TALLYRA_BENCHMARKS_PEERS_PEERS_H

#include "Stage.h"

/// One way to report an event, called on the player's thread.
///
/// Threads: one; the receiver counts on any thread.
class IPeer {
  public:
    virtual ~IPeer() = default;

    /// Prepares a series of calls; not timed.
    virtual void Begin() {}
    /// The timed call. It counts in `m_nSent`.
    virtual void Send() = 0;
    /// Blocks until the receiver has accepted everything.
    /// @throws std::runtime_error  if it does not
    virtual void Settle() {
        Await([this] { return m_nTaken == m_nSent; }, "a receiver misses events");
    }

  protected:
    const std::string m_strRecord = std::string(kImageBytes, 'x');
    std::int64_t m_nSent = 0;
    std::atomic<std::int64_t> m_nTaken = 0;
};

/// The minimum: allocates and fills a record of 4800 bytes and its URL, reads the clock, pushes the
/// record under a mutex and notifies a thread, which frees it.
std::unique_ptr<IPeer> MakeFloorPeer();

/// An asynchronous GDBus call with the bytes that the library sends, to the same service.
std::unique_ptr<IPeer> MakeGdbusPeer(const CStage& stage);

/// A line as long as a record in an asynchronous spdlog logger, to a sink that counts lines.
std::unique_ptr<IPeer> MakeSpdlogPeer();

/// A journal entry as long as a record, to a socket of the benchmark.
/// @param pReason  set if the result is null: the socket of the journal cannot be replaced
std::unique_ptr<IPeer> MakeJournalPeer(std::string* pReason);

#endif  // TALLYRA_BENCHMARKS_PEERS_PEERS_H
