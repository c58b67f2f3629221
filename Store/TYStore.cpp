// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStore.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <utility>

// Problem: several classes share one database: the writer of batches, the policies, the pruner and
// the clock. Other processes write to it too: operators set policies and delete records.
//
// Idea: the store owns the connection and all transactions; the classes only run statements in
// them. The caches of the writer and the policies are valid for one data version of SQLite, which
// changes when another connection commits, and not with own commits. Add compares it inside its
// transaction, so nothing can change between the comparison and the commit.
//
// The running time is saved only now and then, because the last run has its clock in any case. What
// a crash loses of it makes records look younger, see TYStoreClock.cpp.
//
// Always true:
// - Add and Prune run in one transaction each, which is committed completely or not at all.
// - Every record that Prune drops is in losses, in the same transaction, unless a collector has it.
// - A file is changed only once it is known to be a store: MigrateSchema checks that. A new file
//   carries the application id from its first page on, because the log is used only after the
//   transaction that makes the tables.

namespace {

constexpr std::int64_t kPageBytes = 4096;
// A checkpoint waits for the disk: run one for each 16 MiB of log, less if the store is small.
constexpr std::int64_t kMaxLogBytes = std::int64_t{16} << 20;
constexpr std::int64_t kMinLogBytes = std::int64_t{64} << 10;
constexpr const char* kReturnSomePages = "PRAGMA incremental_vacuum(1024)";
constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kSavePeriod = 600 * kSecond;

bool Prepare(CTYDatabase& database, const TYStoreLimits& limits,
             const TYBeforeUpgrade& beforeUpgrade) {
    // NORMAL: a commit is written to the write-ahead log but not synced. It survives a crash of
    // this process; a power failure may lose the last commits.
    database.Execute("PRAGMA synchronous = NORMAL");
    MigrateSchema(database, beforeUpgrade);
    database.Execute("PRAGMA journal_mode = WAL");
    const std::int64_t logBytes = std::clamp(limits.bytes / kLogShare, kMinLogBytes, kMaxLogBytes);
    database.Execute(
        ("PRAGMA wal_autocheckpoint = " + std::to_string(logBytes / kPageBytes)).c_str());
    database.Execute(("PRAGMA journal_size_limit = " + std::to_string(logBytes)).c_str());
    database.Execute("PRAGMA foreign_keys = ON");
    // Overwrites deleted records with zeros. With FAST, their bytes would stay in free pages, and
    // get into the rest of a page that is used again.
    database.Execute("PRAGMA secure_delete = ON");
    return true;
}

}  // namespace

CTYStore::CTYStore(const std::string& path, TYStoreLimits limits, TYReadTimes times,
                   const TYBeforeUpgrade& beforeUpgrade)
    : m_strPath(path),
      m_Limits(limits),
      m_Database(path, CTYDatabase::Mode::READ_WRITE),
      m_bMigrated(Prepare(m_Database, limits, beforeUpgrade)),
      m_Writer(m_Database),
      m_Policies(m_Database),
      m_Pruner(m_Database, limits),
      m_FindVersion(m_Database, "PRAGMA data_version"),
      m_SaveClock(m_Database, "UPDATE store SET clock = ?, boot = ?, boottime = ?, wall = ?"),
      m_Saved(ReadSaved()),
      m_Clock(std::move(times), m_Saved,
              m_Database.Number("SELECT clock FROM runs ORDER BY first DESC LIMIT 1")),
      m_nVersion(m_FindVersion.First().value_or(0)) {}

CTYStore::~CTYStore() {
    m_Database.WaitForLocks(0);
    TryToSaveClock(kSecond);
}

/// @return the saved running time; also sets the epoch
TYMoment CTYStore::ReadSaved() {
    CTYStatement row(m_Database, "SELECT epoch, clock, boot, boottime, wall FROM store");
    if (!row.Step()) {
        throw CTYDatabaseError(SQLITE_CORRUPT, "the table store is empty");
    }
    m_strEpoch = row.Text(0);
    return {row.Int(1), {std::string(row.Text(2)), row.Int(3), row.Int(4)}};
}

void CTYStore::Add(const TYBatch& batch, const std::function<void(CTYDatabase&)>& also) {
    const TYMoment& now = m_Clock.Read();
    try {
        CTYTransaction transaction(m_Database);
        ForgetIfChanged();
        const std::int64_t bytes = m_Writer.Write(batch, now);
        if (also) {
            also(m_Database);
        }
        transaction.Commit();
        m_nAdded += bytes;
    } catch (...) {
        // The cache may hold ids of rows that were rolled back.
        m_Writer.Forget();
        throw;
    }
}

TYPolicy CTYStore::Policy(const std::string& application) {
    ForgetIfChanged();
    return m_Policies.Of(application);
}

void CTYStore::ForgetIfChanged() {
    const std::int64_t version = m_FindVersion.First().value_or(0);
    if (version != m_nVersion) {
        m_Writer.Forget();
        m_Policies.Forget();
        m_nVersion = version;
    }
}

bool CTYStore::Prune() {
    m_nAdded = 0;
    const TYMoment now = m_Clock.Read();
    CTYLosses losses;
    CTYTransaction transaction(m_Database);
    const TYDroppedRows dropped = m_Pruner.Drop(now.clock, LogBytes(), losses);
    m_Writer.Forget(dropped);
    WriteLosses(m_Database, losses, now.times.wall);
    const bool isSaveDue = IsSaveDue(now, kSavePeriod);
    if (isSaveDue) {
        SaveClock(now);
    }
    transaction.Commit();
    m_Saved = isSaveDue ? now : m_Saved;
    return dropped.records > 0 || ReturnFreePages();
}

void CTYStore::NoteLosses(const CTYLosses& losses) {
    CTYTransaction transaction(m_Database);
    WriteLosses(m_Database, losses, m_Clock.Read().times.wall);
    transaction.Commit();
}

std::int64_t CTYStore::LogBytes() const {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(m_strPath + "-wal", error);
    return error ? 0 : static_cast<std::int64_t>(size);
}

bool CTYStore::IsSaveDue(const TYMoment& now, std::int64_t period) const {
    return now.times.boot != m_Saved.times.boot || now.clock - m_Saved.clock >= period;
}

void CTYStore::SaveClock(const TYMoment& now) {
    m_SaveClock.Run(now.clock, now.times.boot, now.times.boottime, now.times.wall);
}

/// Saves the running time if it is more than a period old. A failure only makes records look
/// younger.
void CTYStore::TryToSaveClock(std::int64_t period) {
    try {
        const TYMoment now = m_Clock.Read();
        if (IsSaveDue(now, period)) {
            SaveClock(now);
            m_Saved = now;
        }
    } catch (const CTYDatabaseError&) {
    }
}

bool CTYStore::ReturnFreePages() {
    m_Database.Execute(kReturnSomePages);
    return m_Database.Number("PRAGMA freelist_count") > 0;
}

void CTYStore::EmptyLog() {
    m_Database.Execute("PRAGMA wal_checkpoint(TRUNCATE)");
}
