// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYRunDropper.h"

#include "TYEventCodes.h"

#include <string>

// Problem: the store must be able to drop a part of a playback. A device that is always on has one
// playback that never ends, and a playback of a million records is too much for one transaction.
//
// Idea: a run is the unit. It is what arrived in one batch with one context, so it is small, and
// its entries are consecutive. Dropping one takes its records from the totals of the playback. What
// is then empty goes too: the context without runs, the playback without contexts, the sender
// without playbacks, the holding of a user without playbacks.
//
// The oldest run of a playback belongs to one of its first kLiveContexts contexts. Only that many
// contexts of a sender are in the writer's cache at a time, and a context that has left the cache
// gets no more runs. So when a context is new, at most kLiveContexts - 1 older ones can still get
// runs. If there are kLiveContexts older ones, one of them got its last run before. That keeps the
// search short for a playback with a million contexts, and for a context with a million runs.
//
// Always true:
// - The totals of a playback equal the sums over its entries, and what a user holds is the sum over
//   its playbacks, before and after each call.
// - The times of START, STOP and the first frame stay with the playback, though their records may
//   be gone.

namespace {

std::string SumOf(int event, const char* pParameter) {
    return "coalesce(sum(" + std::string(pParameter) +
           ") FILTER (WHERE event = " + std::to_string(event) + " AND " + pParameter +
           " > 0), 0), ";
}

std::string SqlForSums() {
    return "SELECT count(*), " + SumOf(TY_EVENT_PLAYING_TIME, "param2") +
           "count(*) FILTER (WHERE event = " + std::to_string(TY_EVENT_BUFFERING_TIME) + "), " +
           SumOf(TY_EVENT_BUFFERING_TIME, "param1") +
           "count(*) FILTER (WHERE event >= " + std::to_string(kFirstErrorCode) +
           ") FROM entries WHERE id BETWEEN ? AND ?";
}

}  // namespace

struct CTYRunDropper::Run {
    std::int64_t first;
    std::int64_t last;
    std::int64_t context;
    std::int64_t playback;
    std::int64_t sender;
    std::int64_t uid;
    std::int64_t playbackBytes;
    std::string application;
};

/// What a run is worth in the totals of its playback.
struct CTYRunDropper::Sums {
    std::int64_t records;
    std::int64_t watchedMs;
    std::int64_t stalls;
    std::int64_t stalledMs;
    std::int64_t errors;
    std::int64_t bytes;
};

CTYRunDropper::CTYRunDropper(CTYDatabase& database)
    : m_Database(database),
      m_FindOldest(database,
                   "SELECT min((SELECT min(first) FROM runs WHERE context = c.id)) FROM "
                   "(SELECT id FROM contexts WHERE playback = ?1 ORDER BY id LIMIT ?2) c"),
      m_FindRun(database,
                "SELECT r.last, r.context, p.id, p.sender, p.uid, p.bytes, p.service_id "
                "FROM runs r LEFT JOIN contexts c ON c.id = r.context "
                "LEFT JOIN playbacks p ON p.id = c.playback WHERE r.first = ?"),
      m_SumEntries(database, SqlForSums()),
      m_DropRun(database, "DELETE FROM runs WHERE first = ?"),
      m_MeasureContext(database,
                       "SELECT 2 * length(common) + coalesce(length(CAST(url AS BLOB)), 0) "
                       "FROM contexts WHERE id = ?1 AND "
                       "NOT EXISTS (SELECT 1 FROM runs WHERE context = ?1)"),
      m_DropContext(database, "DELETE FROM contexts WHERE id = ?"),
      m_FindContext(database, "SELECT min(id) FROM contexts WHERE playback = ?"),
      m_DropPlayback(database, "DELETE FROM playbacks WHERE id = ?"),
      m_DropSender(database,
                   "DELETE FROM senders WHERE id = ?1 AND NOT EXISTS "
                   "(SELECT 1 FROM playbacks WHERE sender = ?1)"),
      m_DropHolding(database,
                    "DELETE FROM holdings WHERE uid = ?1 AND NOT EXISTS "
                    "(SELECT 1 FROM playbacks WHERE uid = ?1)"),
      m_ReducePlayback(database,
                       "UPDATE playbacks SET records = records - ?, watched_ms = watched_ms - ?, "
                       "stalls = stalls - ?, stalled_ms = stalled_ms - ?, errors = errors - ?, "
                       "bytes = bytes - ?, context = CASE context WHEN ? THEN ? ELSE context END "
                       "WHERE id = ?"),
      m_ReduceHolding(database, "UPDATE holdings SET bytes = bytes - ? WHERE uid = ?") {}

std::optional<std::int64_t> CTYRunDropper::OldestOf(std::int64_t playback) {
    return m_FindOldest.First(playback, kLiveContexts);
}

TYDroppedRun CTYRunDropper::Drop(std::int64_t first) {
    const std::optional<Run> run = Find(first);
    if (!run) {
        return {};
    }
    Sums sums = SumsOf(*run);
    m_DropRun.Run(first);
    TYDroppedRun dropped{run->last, sums.records, 0, false, run->application, {}, {}};
    std::optional<std::int64_t> nextContext;
    if (DropContext(*run, sums)) {
        dropped.context = run->context;
        nextContext = m_FindContext.First(run->playback);
        dropped.playback = !nextContext;
    }
    if (dropped.playback) {
        dropped.sender = DropPlayback(*run);
    } else {
        ReducePlayback(*run, sums, nextContext);
    }
    dropped.bytes = sums.bytes;
    return dropped;
}

std::optional<CTYRunDropper::Run> CTYRunDropper::Find(std::int64_t first) {
    std::optional<Run> run;
    m_FindRun.Begin(first);
    if (m_FindRun.Step()) {
        run = Run{first,
                  m_FindRun.Int(0),
                  m_FindRun.Int(1),
                  m_FindRun.Int(2),
                  m_FindRun.Int(3),
                  m_FindRun.Int(4),
                  m_FindRun.Int(5),
                  std::string(m_FindRun.Text(6))};
    }
    m_FindRun.Reset();
    return run;
}

CTYRunDropper::Sums CTYRunDropper::SumsOf(const Run& run) {
    m_SumEntries.Begin(run.first, run.last);
    m_SumEntries.Step();
    const std::int64_t records = m_SumEntries.Int(0);
    const Sums sums{records,
                    m_SumEntries.Int(1),
                    m_SumEntries.Int(2),
                    m_SumEntries.Int(3),
                    m_SumEntries.Int(4),
                    records * kEntryBytes};
    m_SumEntries.Reset();
    return sums;
}

/// @return whether the context had no other run; its bytes are then added to the sums
bool CTYRunDropper::DropContext(const Run& run, Sums& sums) {
    const std::optional<std::int64_t> bytes = m_MeasureContext.First(run.context);
    if (bytes) {
        sums.bytes += *bytes;
        m_DropContext.Run(run.context);
    }
    return bytes.has_value();
}

/// @return the sender, if this was its last playback
std::optional<std::int64_t> CTYRunDropper::DropPlayback(const Run& run) {
    m_DropPlayback.Run(run.playback);
    m_ReduceHolding.Run(run.playbackBytes, run.uid);
    m_DropHolding.Run(run.uid);
    m_DropSender.Run(run.sender);
    if (m_Database.Changes() == 0) {
        return std::nullopt;
    }
    return run.sender;
}

/// @param context  the oldest one of the playback, if that of the run was dropped
void CTYRunDropper::ReducePlayback(const Run& run, const Sums& sums,
                                   std::optional<std::int64_t> context) {
    const std::optional<std::int64_t> dropped = context ? run.context : context;
    m_ReducePlayback.Run(sums.records, sums.watchedMs, sums.stalls, sums.stalledMs, sums.errors,
                         sums.bytes, dropped, context, run.playback);
    m_ReduceHolding.Run(sums.bytes, run.uid);
}
