// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStoreSpace.h"

#include <algorithm>

// Problem: SQLite appends commits to the log and copies them to the database later, in a
// checkpoint. Two things can make the log grow without bound or stay for ever. A reader that stays
// in its transaction keeps the log from starting over. And a disk that the log has filled has no
// space for the database to grow, so that the checkpoint that would free the log fails as well.
//
// Idea: check before each batch, with two calls to the system.
//
//   Size: once the log is longer than the length at which SQLite empties it by itself, database and
//   log together must not exceed the limit by more than a sixteenth.
//
//   Disk: the free space must be at least the length of the log plus kReserve. The log is the most
//   that a checkpoint can add to the database, so a checkpoint always fits.
//
// While a reader keeps a log that is too long, nothing is dropped either: that would make the log
// longer still, and free no space.
//
// Dropping records needs space as well: for the log of the deletion, and for that of moving pages
// out of the end of the file. On a full disk, the log is emptied first, and pages are returned few
// at a time, each time with an empty log. kReserve is what that takes.
//
// If a check fails, a checkpoint empties the log. If it still fails, the batch is refused, and so
// are the next ones for kAttemptPeriod. A checkpoint never waits for a reader here.
//
// Always true:
// - A batch that passes was checked against the sizes directly before it.
// - With nobody reading, a store that is within its limit passes the first check.
// - The limit leaves a quarter of the file system free, files that were set aside not counted. So a
//   store that shares its disk with nothing but those passes the second check.

namespace {

constexpr std::chrono::milliseconds kAttemptPeriod{100};
// Pages that are returned at once on a full disk, and how often in one call.
constexpr const char* kReturnFewPages = "PRAGMA incremental_vacuum(32)";
constexpr int kReturnsAtOnce = 8;
// Some records fit in anyway.
constexpr std::int64_t kSmallestLimit = CTYStoreSpace::kReserve / 4;

std::string InMebibytes(std::int64_t bytes) {
    return std::to_string(bytes >> 20) + " MiB";
}

}  // namespace

std::int64_t CTYStoreSpace::LimitFor(const CTYStoreFile& file, std::int64_t aside,
                                     std::int64_t limit) {
    const auto space = file.DiskSpace();
    if (!space) {
        return limit;
    }
    const std::int64_t rest = space->total - aside;
    const std::int64_t fitting = std::min(rest / 4 * 3, rest / 8 * 7 - kReserve);
    return std::min(limit, std::max(fitting, kSmallestLimit));
}

CTYStoreSpace::CTYStoreSpace(const CTYStoreFile& file, std::int64_t limit, std::int64_t longest)
    : m_File(file), m_nLimit(limit), m_nLongest(longest), m_Reader(file.Path()) {}

void CTYStoreSpace::Provide(CTYStore& store, Clock::time_point now) {
    if (m_File.IsInMemory() || (!IsDiskFull() && !IsLogTooLong(store))) {
        return;
    }
    if (m_Refusal && now < m_NextAttempt) {
        throw CTYDatabaseError(*m_Refusal);
    }
    m_NextAttempt = now + kAttemptPeriod;
    m_Refusal.reset();
    EmptyLog(store);
    const bool isDiskFull = IsDiskFull();
    if (isDiskFull || IsLogTooLong(store)) {
        m_Refusal = Refusal(isDiskFull);
        throw CTYDatabaseError(*m_Refusal);
    }
}

bool CTYStoreSpace::Prune(CTYStore& store) const {
    if (IsDiskFull() || IsLogTooLong(store)) {
        EmptyLog(store);
    }
    if (IsLogTooLong(store)) {
        return false;
    }
    try {
        return store.Prune();
    } catch (const CTYDatabaseError& error) {
        if (error.Kind() != SQLITE_FULL) {
            throw;
        }
        return ReturnPages(store);
    }
}

bool CTYStoreSpace::ReturnPages(CTYStore& store) {
    CTYDatabase& database = store.Database();
    EmptyLog(store);
    bool areLeft = database.Number("PRAGMA freelist_count") > 0;
    for (int i = 0; areLeft && i < kReturnsAtOnce; ++i) {
        database.Execute(kReturnFewPages);
        EmptyLog(store);
        areLeft = database.Number("PRAGMA freelist_count") > 0;
    }
    return areLeft;
}

// Waits for no lock. A failure shows in the sizes.
void CTYStoreSpace::EmptyLog(CTYStore& store) {
    store.WaitForLocks(0);
    try {
        store.EmptyLog();
    } catch (const CTYDatabaseError& error) {
        if (error.Kind() != SQLITE_BUSY && error.Kind() != SQLITE_LOCKED &&
            error.Kind() != SQLITE_FULL) {
            throw;
        }
    }
    store.WaitForLocks(CTYDatabase::kLockWaitMs);
}

bool CTYStoreSpace::IsDiskFull() const {
    const auto space = m_File.DiskSpace();
    return space && space->free < m_File.LogBytes() + kReserve;
}

// The last batch before SQLite empties the log goes beyond its size, hence the quarter.
bool CTYStoreSpace::IsLogTooLong(CTYStore& store) const {
    const std::int64_t log = m_File.LogBytes();
    return log > m_nLongest + m_nLongest / 4 && store.UsedBytes() + log > m_nLimit + m_nLimit / 16;
}

CTYDatabaseError CTYStoreSpace::Refusal(bool isDiskFull) {
    const std::string reader = m_Reader.Find();
    const std::string why =
        reader.empty() ? "" : "; " + reader + " reads an old state, which keeps the log";
    if (isDiskFull) {
        return {SQLITE_FULL, "the file system has no space left, the log has " +
                                 InMebibytes(m_File.LogBytes()) + why};
    }
    return {SQLITE_BUSY, "the log has grown to " + InMebibytes(m_File.LogBytes()) + why};
}
