// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTORE_H
#define TALLYRA_TYSTORE_H

#include "TYBatch.h"
#include "TYBatchWriter.h"
#include "TYDatabase.h"
#include "TYLosses.h"
#include "TYPolicies.h"
#include "TYPruner.h"
#include "TYSchema.h"
#include "TYStoreClock.h"

#include <cstdint>
#include <functional>
#include <string>

/// The service's records and policies in an SQLite database, see TYStore.cpp.
///
/// Every operation throws CTYDatabaseError when SQLite fails, and is then rolled back. The store
/// stays usable.
///
/// Threads: one.
class CTYStore {
  public:
    /// Opens the file; creates it or upgrades its schema if needed.
    /// @param times          reads the machine's clocks
    /// @param beforeUpgrade  see MigrateSchema; empty for none
    explicit CTYStore(const std::string& path, TYStoreLimits limits = {},
                      TYReadTimes times = SystemTimes, const TYBeforeUpgrade& beforeUpgrade = {});
    /// Saves the running time, if that works without waiting.
    ~CTYStore();
    CTYStore(const CTYStore&) = delete;
    CTYStore& operator=(const CTYStore&) = delete;

    /// Stores a batch in one transaction. Once Add returns, the records survive a crash of the
    /// process. A URL longer than 64 KiB is cut, and the number of bytes cut off is stored.
    /// @param also  is called in the same transaction, after the batch was written
    void Add(const TYBatch& batch, const std::function<void(CTYDatabase&)>& also = nullptr);

    /// @return the application's policy and bindings; if it has neither, those of "*"; without
    ///         those, a policy that allows everything. Changes by other connections count at once.
    TYPolicy Policy(const std::string& application);

    /// Drops some of the oldest records while the store exceeds a limit, and counts those that no
    /// collector has in the table losses. The work of one call is bounded, so that senders are not
    /// blocked.
    /// @return whether to call again, because the store may still exceed a limit
    bool Prune();

    /// @return whether enough was added since the last Prune to call it again
    bool HasGrown() const { return m_nAdded >= m_Limits.bytes / kGrowthShare; }

    /// Adds losses to the table losses, in a transaction of its own.
    void NoteLosses(const CTYLosses& losses);

    /// Sets how long operations wait for locks of other processes.
    void WaitForLocks(int milliseconds) { m_Database.WaitForLocks(milliseconds); }

    /// Saves the running time, unless that fails. Call it before the last EmptyLog.
    void SaveTime() { TryToSaveClock(0); }

    /// Moves all commits from the write-ahead log into the database file and truncates the log.
    /// Fails while another connection reads an older snapshot.
    void EmptyLog();

    /// @return bytes of the database in use, free pages and the log not counted
    std::int64_t UsedBytes() { return m_Pruner.UsedBytes(); }

    /// @return the identity of the store, a UUID: each new store has a new one
    const std::string& Epoch() const { return m_strEpoch; }

    /// @return nanoseconds by which the wall clock was set since the last call; 0 if it was not
    std::int64_t TakeClockStep() { return m_Clock.TakeStep(); }

    /// For the file checks of its owner. After writing to the tables with it, open the store again.
    CTYDatabase& Database() { return m_Database; }

  private:
    // HasGrown is true once m_Limits.bytes / kGrowthShare were added: the store may exceed its
    // limit by that much.
    static constexpr std::int64_t kGrowthShare = 16;

    TYMoment ReadSaved();
    void ForgetIfChanged();
    std::int64_t LogBytes() const;
    bool IsSaveDue(const TYMoment& now, std::int64_t period) const;
    void SaveClock(const TYMoment& now);
    void TryToSaveClock(std::int64_t period);
    bool ReturnFreePages();

    const std::string m_strPath;
    const TYStoreLimits m_Limits;
    CTYDatabase m_Database;
    const bool m_bMigrated;
    CTYBatchWriter m_Writer;
    CTYPolicies m_Policies;
    CTYPruner m_Pruner;
    CTYStatement m_FindVersion;
    CTYStatement m_SaveClock;
    std::string m_strEpoch;
    TYMoment m_Saved;
    CTYStoreClock m_Clock;
    std::int64_t m_nVersion;    ///< data version that the caches belong to
    std::int64_t m_nAdded = 0;  ///< estimated bytes since the last Prune
};

#endif  // TALLYRA_TYSTORE_H
