// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPruner.h"

#include <algorithm>

// Problem: the store has a limit for the age of records and one for its size. Dropping must not
// block senders, and no user may push the records of others out of the store by sending many.
//
// Idea, age: runs are in the order of their arrival, and so is their running time. The first run is
// the oldest one; once it is young enough, all are.
//
// Idea, size: the user that holds most gives. The table holdings estimates what each user holds: a
// fixed size for each record, the real size of contexts. Of that user, the playback whose last
// record is oldest goes first, run by run. So a user that floods the store drops its own records as
// soon as it holds more than any other.
//
// The limit is for the database and its log together. But dropping records cannot shrink a log:
// only a checkpoint can, and a process that reads an old snapshot keeps it from that. So a log
// counts at most with what it has without such a reader (kLogShare), however long it is. Otherwise,
// one paused reader would make the pruner drop everything.
//
// On a device that forwards its records, a collector has stored all entries up to the id in the
// table forwarding. The store is then a buffer, and what the collector has is only a copy: for
// room, it goes first, oldest run first, from any user. The largest user gives only when the rest
// is still too big. Runs are in the order of their ids, so if the first one is not stored, none is.
//
// SQLite frees a page once all its entries are dropped, or most of them. If users send in turns,
// the pages of one user's records hold records of others too, and some more records must be dropped
// than the excess.
//
// Always true:
// - No record is dropped by age that is younger than the limit in running time.
// - No record is dropped for room that the collector does not have, while there is a run that it
//   has. What it has is no loss.
// - One call drops at most kRecordsAtOnce records and kBytesAtOnce bytes, but for the last run, and
//   stops after kTimeAtOnce.

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::int64_t kRecordsAtOnce = 4096;
// Dropped bytes are overwritten, and so they are written to the log. This much fits into the space
// that stays free on a full file system.
constexpr std::int64_t kBytesAtOnce = std::int64_t{256} << 10;
constexpr std::chrono::milliseconds kTimeAtOnce{30};

// The number of records after an id.
std::int64_t RestOf(const TYDroppedRun& dropped, std::int64_t id) {
    return dropped.last <= id ? 0 : std::min(dropped.records, dropped.last - id);
}

}  // namespace

struct CTYPruner::Work {
    TYDroppedRows rows;
    CTYLosses& losses;
    std::optional<std::int64_t> forwarded;  ///< a collector has the entries up to this id
};

CTYPruner::CTYPruner(CTYDatabase& database, TYStoreLimits limits)
    : m_Limits(limits),
      m_Dropper(database),
      m_FindStored(database,
                   "SELECT stored FROM forwarding WHERE typeof(stored) = 'integer' AND stored > 0"),
      m_FindOldestRun(database, "SELECT first, last, clock FROM runs ORDER BY first LIMIT 1"),
      m_FindLargestUser(database, "SELECT uid FROM holdings ORDER BY bytes DESC LIMIT 1"),
      m_FindOldestPlayback(database,
                           "SELECT id FROM playbacks WHERE uid = ? ORDER BY last_entry LIMIT 1"),
      m_DropHolding(database, "DELETE FROM holdings WHERE uid = ?"),
      m_CountPages(database, "PRAGMA page_count"),
      m_CountFreePages(database, "PRAGMA freelist_count"),
      m_nPageSize(database.Number("PRAGMA page_size")) {}

TYDroppedRows CTYPruner::Drop(std::int64_t clock, std::int64_t logBytes, CTYLosses& losses) {
    const std::int64_t oldest = clock - std::chrono::nanoseconds(m_Limits.age).count();
    const std::int64_t room = m_Limits.bytes - std::min(logBytes, m_Limits.bytes / kLogShare);
    const Clock::time_point end = Clock::now() + kTimeAtOnce;
    Work work{{}, losses, m_FindStored.First()};
    while (work.rows.records < kRecordsAtOnce && work.rows.bytes < kBytesAtOnce &&
           Clock::now() < end && (DropByAge(oldest, work) || DropForRoom(room, work))) {
    }
    return std::move(work.rows);
}

/// @return whether it dropped a run
bool CTYPruner::DropByAge(std::int64_t oldest, Work& work) {
    m_FindOldestRun.Begin();
    const bool isTooOld = m_FindOldestRun.Step() && m_FindOldestRun.Int(2) < oldest;
    const std::int64_t first = isTooOld ? m_FindOldestRun.Int(0) : 0;
    m_FindOldestRun.Reset();
    return isTooOld && DropRun(first, TYLossReason::AGE, work);
}

/// @return whether it dropped a run, or the holding of a user without records
bool CTYPruner::DropForRoom(std::int64_t room, Work& work) {
    return UsedBytes() > room && (DropForwarded(work) || DropOfLargestUser(work));
}

/// @return whether it dropped a run
bool CTYPruner::DropForwarded(Work& work) {
    m_FindOldestRun.Begin();
    const bool isForwarded =
        work.forwarded && m_FindOldestRun.Step() && m_FindOldestRun.Int(1) <= *work.forwarded;
    const std::int64_t first = isForwarded ? m_FindOldestRun.Int(0) : 0;
    m_FindOldestRun.Reset();
    return isForwarded && DropRun(first, TYLossReason::ROOM, work);
}

/// @return whether it dropped a run, or the holding of a user without records
bool CTYPruner::DropOfLargestUser(Work& work) {
    const std::optional<std::int64_t> user = m_FindLargestUser.First();
    if (!user) {
        return false;
    }
    const std::optional<std::int64_t> playback = m_FindOldestPlayback.First(*user);
    const std::optional<std::int64_t> first =
        playback ? m_Dropper.OldestOf(*playback) : std::nullopt;
    if (!first) {
        m_DropHolding.Run(*user);
        return true;
    }
    return DropRun(*first, TYLossReason::ROOM, work);
}

bool CTYPruner::DropRun(std::int64_t first, TYLossReason reason, Work& work) {
    const TYDroppedRun dropped = m_Dropper.Drop(first);
    const bool isWhole = !work.forwarded || *work.forwarded < first;
    const std::int64_t lost = isWhole ? dropped.records : RestOf(dropped, *work.forwarded);
    work.losses.Count(reason, dropped.application, lost, isWhole && dropped.playback ? 1 : 0);
    work.rows.records += dropped.records;
    work.rows.bytes += dropped.bytes;
    if (dropped.context) {
        work.rows.contexts.insert(*dropped.context);
    }
    if (dropped.sender) {
        work.rows.senders.insert(*dropped.sender);
    }
    return true;
}

// SQLite does not check the number of free pages. A negative one would make the store seem too
// large, and all records would be dropped for room.
std::int64_t CTYPruner::UsedBytes() {
    const std::int64_t pages = m_CountPages.First().value_or(0);
    const std::int64_t free = m_CountFreePages.First().value_or(0);
    if (free < 0 || free > pages) {
        throw CTYDatabaseError(SQLITE_CORRUPT, "the number of free pages is damaged");
    }
    return m_nPageSize * (pages - free);
}
