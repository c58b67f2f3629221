// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYRUNDROPPER_H
#define TALLYRA_TYRUNDROPPER_H

#include "TYDatabase.h"

#include <cstdint>
#include <optional>
#include <string>

/// What went with a dropped run.
struct TYDroppedRun {
    std::int64_t last = 0;  ///< the id of its last record
    std::int64_t records = 0;
    std::int64_t bytes = 0;               ///< as its user held them
    bool playback = false;                ///< whether its playback went with it
    std::string application;              ///< that of the playback
    std::optional<std::int64_t> context;  ///< its context, if that went with it
    std::optional<std::int64_t> sender;   ///< its sender, if that went with it
};

/// Drops single runs of records from a store of this build's schema, see TYRunDropper.cpp.
///
/// Every operation throws CTYDatabaseError when SQLite fails. The caller holds a transaction.
///
/// Threads: one, that of the database.
class CTYRunDropper {
  public:
    /// How many contexts of a sender may still get runs: the latest ones. All runs of its older
    /// contexts are older than these contexts.
    static constexpr int kLiveContexts = 4;
    /// Estimated bytes in the store of a record, and of a playback without contexts. The estimate
    /// for a context is the size of its URL and twice that of its common part.
    static constexpr std::int64_t kEntryBytes = 40;
    static constexpr std::int64_t kPlaybackBytes = 300;

    explicit CTYRunDropper(CTYDatabase& database);

    /// @return the oldest run of a playback; nothing if the playback has none
    std::optional<std::int64_t> OldestOf(std::int64_t playback);

    /// Drops a run with its entries, and the context, playback and sender that are then empty.
    /// Takes it from the totals of its playback and from what its user holds.
    /// @param first  id of the run; an unknown one is ignored
    TYDroppedRun Drop(std::int64_t first);

  private:
    struct Run;
    struct Sums;

    std::optional<Run> Find(std::int64_t first);
    Sums SumsOf(const Run& run);
    bool DropContext(const Run& run, Sums& sums);
    std::optional<std::int64_t> DropPlayback(const Run& run);
    void ReducePlayback(const Run& run, const Sums& sums, std::optional<std::int64_t> context);

    CTYDatabase& m_Database;
    CTYStatement m_FindOldest;
    CTYStatement m_FindRun;
    CTYStatement m_SumEntries;
    CTYStatement m_DropRun;
    CTYStatement m_MeasureContext;
    CTYStatement m_DropContext;
    CTYStatement m_FindContext;
    CTYStatement m_DropPlayback;
    CTYStatement m_DropSender;
    CTYStatement m_DropHolding;
    CTYStatement m_ReducePlayback;
    CTYStatement m_ReduceHolding;
};

#endif  // TALLYRA_TYRUNDROPPER_H
