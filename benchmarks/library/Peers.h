// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LIBRARY_PEERS_H
#define TALLYRA_BENCHMARKS_LIBRARY_PEERS_H

#include "Stage.h"

#include <memory>
#include <string>

/// One way to report an event, called on the player's thread.
///
/// Threads: one.
class IPeer {
  public:
    virtual ~IPeer() = default;

    /// Before a row of calls; not timed.
    virtual void Begin() {}
    /// The call that is timed.
    virtual void Send() = 0;
    /// Returns when all that was sent has been accepted at its other end.
    /// @throws std::runtime_error  when it is not
    virtual void Settle() = 0;
};

/// SendMediaEvent of a connected collector.
std::unique_ptr<IPeer> MakeLibraryPeer(const CStage& stage);

/// The least that can be done: allocate and fill a record of 4800 bytes and its URL, read the
/// clock, push it under a mutex, notify; a thread takes and frees it.
std::unique_ptr<IPeer> MakeFloorPeer();

/// An asynchronous call of GDBus, with the bytes and to the service that the library sends to.
std::unique_ptr<IPeer> MakeGdbusPeer(const CStage& stage);

/// A line of an asynchronous logger of spdlog, as long as a record, to a sink that counts it.
std::unique_ptr<IPeer> MakeSpdlogPeer();

/// An entry of the journal that is as long as a record, to a socket that is read.
/// @param pReason  why there is none, when the result is null: the machine has a journal of its own
///                 at that place, or the place cannot be written
std::unique_ptr<IPeer> MakeJournalPeer(std::string* pReason);

#endif  // TALLYRA_BENCHMARKS_LIBRARY_PEERS_H
