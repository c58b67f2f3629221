// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPRUNER_H
#define TALLYRA_TYPRUNER_H

#include "TYLosses.h"
#include "TYRunDropper.h"

#include <chrono>
#include <cstdint>
#include <unordered_set>

/// Limits of the store. Prune drops the oldest records beyond them.
struct TYStoreLimits {
    std::chrono::hours age{24 * 30};               ///< in running time, see TYStoreClock.h
    std::int64_t bytes = std::int64_t{512} << 20;  ///< of the database and its log
};

/// The write-ahead log has at most one part in kLogShare of the limit for bytes.
constexpr std::int64_t kLogShare = 16;

/// What one call of CTYPruner::Drop dropped.
struct TYDroppedRows {
    std::int64_t records = 0;
    std::int64_t bytes = 0;
    std::unordered_set<std::int64_t> contexts;
    std::unordered_set<std::int64_t> senders;
};

/// Chooses the records that exceed the limits, and drops them, see TYPruner.cpp.
///
/// Throws CTYDatabaseError when SQLite fails.
///
/// Threads: one, that of the database.
class CTYPruner {
  public:
    CTYPruner(CTYDatabase& database, TYStoreLimits limits);

    /// Drops some records within the caller's transaction. The work is bounded.
    /// @param clock     the running time of the store
    /// @param logBytes  size of the write-ahead log
    /// @param losses    gets what is dropped and was not forwarded
    TYDroppedRows Drop(std::int64_t clock, std::int64_t logBytes, CTYLosses& losses);

    /// @return bytes of the database in use, free pages not counted
    std::int64_t UsedBytes();

  private:
    struct Work;

    bool DropByAge(std::int64_t oldest, Work& work);
    bool DropForRoom(std::int64_t room, Work& work);
    bool DropForwarded(Work& work);
    bool DropOfLargestUser(Work& work);
    bool DropRun(std::int64_t first, TYLossReason reason, Work& work);

    TYStoreLimits m_Limits;
    CTYRunDropper m_Dropper;
    CTYStatement m_FindStored;
    CTYStatement m_FindOldestRun;
    CTYStatement m_FindLargestUser;
    CTYStatement m_FindOldestPlayback;
    CTYStatement m_DropHolding;
    CTYStatement m_CountPages;
    CTYStatement m_CountFreePages;
    const std::int64_t m_nPageSize;
};

#endif  // TALLYRA_TYPRUNER_H
