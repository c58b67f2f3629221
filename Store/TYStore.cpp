// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStore.h"

#include "TYEventCodes.h"
#include "TYRecordImage.h"
#include "TYSchema.h"

#include <cstring>
#include <utility>

// Problem: the service must commit a batch before it answers, thousands of records arrive each
// second, and almost all of a record's 4800 bytes equal those of the record before it.
//
// Idea: store the shared bytes once as a context (see TYSchema.cpp) and each record as a row of
// small integers. Insert splits a batch into runs: maximal sequences of records with the same
// context. A run costs one row in runs, and one INSERT for each twelve entries.
//
// A lookup in the database for each run would still dominate, so the store caches for each sender
// the database ids of its last kContextsKept contexts, most recently used first. A record matches a
// cached context if its URL and its common bytes are equal; comparing them in place is cheaper than
// hashing them. A context that is not cached gets a new row, even if the database holds an equal
// one: duplicates cost space, never correctness.
//
// Always true:
// - Add and Prune run in one transaction each, which is committed completely or not at all.
// - Between calls, every id in m_Senders names a committed row. So the cache is cleared whenever a
//   transaction rolls back and whenever a playback is dropped.
// - The cache is bounded: at kSendersKept senders it is cleared entirely. Evicting senders one by
//   one would help little, because senders come and go.
// - The totals in playbacks equal the sums over the entries of the playback, because one
//   transaction writes both. Lists and statistics read the totals instead of scanning entries.
// - Prune deletes whole playbacks only, and counts them in losses in the same transaction.

namespace {

constexpr std::size_t kSendersKept = 1024;
// Limits of one Prune transaction, so that senders are not blocked. A playback that crosses the
// record limit is still dropped entirely.
constexpr int kDropAtOnce = 16;
constexpr std::int64_t kRecordsAtOnce = 4096;
constexpr const char* kReturnSomePages = "PRAGMA incremental_vacuum(1024)";
constexpr std::chrono::hours kLossPeriod{1};
// Estimated bytes of a record without its context.
constexpr std::int64_t kEntrySize = 40;
// Records per INSERT statement: starting and ending a statement costs more than binding a row.
constexpr std::size_t kEntriesAtOnce = 12;

bool Prepare(CTYDatabase& database) {
    // Lets ReturnFreePages shrink the file. SQLite ignores it unless the file is empty.
    database.Execute("PRAGMA auto_vacuum = INCREMENTAL");
    // NORMAL: a commit is written to the write-ahead log but not synced. It survives a crash of
    // this process; a power failure may lose the last commits.
    database.Execute("PRAGMA journal_mode = WAL");
    database.Execute("PRAGMA synchronous = NORMAL");
    // A checkpoint waits for the disk: run one for each 16 MiB of log (4096 pages).
    database.Execute("PRAGMA wal_autocheckpoint = 4096");
    database.Execute("PRAGMA journal_size_limit = 16777216");
    database.Execute("PRAGMA foreign_keys = ON");
    MigrateSchema(database);
    return true;
}

// Parameters 1 and 2 are the context and the arrival, which all rows share.
std::string SqlForEntries(std::size_t count) {
    std::string sql =
        "INSERT INTO entries(context, arrival, event, param1, param2, time_sec, time_nsec, "
        "padding) VALUES";
    for (std::size_t i = 0; i < count; ++i) {
        sql += i == 0 ? "" : ", ";
        sql += "(?1, ?2, ?, ?, ?, ?, ?, ?)";
    }
    return sql;
}

std::int64_t PaddingOf(const TYMediaData& record) {
    std::uint32_t padding = 0;
    std::memcpy(&padding, record.padding2, sizeof(record.padding2));
    return padding;
}

}  // namespace

/// What the records of a batch add to the totals of their playback.
struct CTYStore::Totals {
    std::int64_t records = 0;
    std::int64_t watchedMs = 0;
    std::int64_t stalls = 0;
    std::int64_t stalledMs = 0;
    std::int64_t errors = 0;
    std::optional<std::int64_t> startUpMs;
    std::optional<std::int64_t> started;
    std::optional<std::int64_t> ended;
    std::optional<std::int64_t> context;

    void Count(const TYMediaData& record, std::int64_t contextId) {
        ++records;
        switch (record.event) {
            case TY_EVENT_START:
                started = started ? started : record.time.sec;
                context = contextId;
                break;
            case TY_EVENT_STOP:
                ended = record.time.sec;
                break;
            case TY_EVENT_PLAYING_TIME:
                watchedMs += record.param2 > 0 ? record.param2 : 0;
                break;
            case TY_EVENT_START_UP_TIME:
                startUpMs = startUpMs ? startUpMs : record.param1;
                break;
            case TY_EVENT_BUFFERING_TIME:
                ++stalls;
                stalledMs += record.param1 > 0 ? record.param1 : 0;
                break;
            default:
                errors += record.event >= kFirstErrorCode ? 1 : 0;
        }
    }
};

CTYStore::CTYStore(const std::string& path, TYStoreLimits limits)
    : m_Limits(limits),
      m_Database(path, CTYDatabase::Mode::READ_WRITE),
      m_bMigrated(Prepare(m_Database)),
      m_FindSender(m_Database, "SELECT id FROM senders WHERE bus = ? AND name = ?"),
      m_InsertSender(m_Database,
                     "INSERT INTO senders(bus, name, uid, pid, first_arrival) "
                     "VALUES(?, ?, ?, ?, ?)"),
      m_CountBatch(m_Database, "UPDATE senders SET batches = batches + 1 WHERE id = ?"),
      m_FindPlayback(m_Database, "SELECT id FROM playbacks WHERE sender = ? AND playback_id = ?"),
      m_InsertPlayback(m_Database,
                       "INSERT INTO playbacks(sender, playback_id, service_id, "
                       "first_arrival, last_arrival) VALUES(?, ?, ?, ?, ?)"),
      m_UpdatePlayback(
          m_Database,
          "UPDATE playbacks SET last_arrival = max(last_arrival, ?), "
          "records = records + ?, watched_ms = watched_ms + ?, stalls = stalls + ?, "
          "stalled_ms = stalled_ms + ?, errors = errors + ?, "
          "startup_ms = coalesce(startup_ms, ?), "
          "started_sec = coalesce(started_sec, ?), ended_sec = coalesce(?, ended_sec), "
          "context = coalesce(?, context) WHERE id = ?"),
      m_InsertContext(m_Database,
                      "INSERT INTO contexts(playback, player_id, network_type, service_version, "
                      "service_id, duration, url, drm_type, content_type, channel_id, title, "
                      "genre, custom_info, common) "
                      "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
      m_InsertEntry(m_Database, SqlForEntries(1)),
      m_InsertEntries(m_Database, SqlForEntries(kEntriesAtOnce)),
      m_InsertRun(m_Database, "INSERT INTO runs(first, last, context, arrival) VALUES(?, ?, ?, ?)"),
      m_FindPolicy(m_Database,
                   "SELECT value FROM policies WHERE application IN (?, '*') "
                   "ORDER BY application = '*' LIMIT 1") {}

void CTYStore::Add(const TYBatch& batch) {
    try {
        CTYTransaction transaction(m_Database);
        Insert(batch);
        transaction.Commit();
    } catch (...) {
        // The cache may hold ids of rows that were rolled back.
        m_Senders.clear();
        throw;
    }
}

int CTYStore::Policy(const std::string& application) {
    m_FindPolicy.Begin(application);
    const int policy = m_FindPolicy.Step() ? static_cast<int>(m_FindPolicy.Int(0)) : 1;
    m_FindPolicy.Reset();
    return policy;
}

void CTYStore::Insert(const TYBatch& batch) {
    Sender& sender = SenderOf(batch);
    m_CountBatch.Run(sender.id);
    std::map<std::int64_t, Totals> totals;
    for (std::size_t i = 0; i < batch.records.size();) {
        const Context& context = ContextOf(sender, batch, i);
        Totals& total = totals[context.playback];
        const std::size_t begin = i;
        do {
            total.Count(batch.records[i++], context.id);
        } while (i < batch.records.size() && context.IsOf(batch, i));
        InsertRun(context.id, batch.arrival, Records(batch.records).subspan(begin, i - begin));
    }
    for (const auto& [playback, total] : totals) {
        AddTotals(playback, batch.arrival, total);
    }
}

CTYStore::Sender& CTYStore::SenderOf(const TYBatch& batch) {
    const TYPeerIdentity& peer = batch.sender;
    if (const auto known = m_Senders.find(peer.name); known != m_Senders.end()) {
        return known->second;
    }
    if (m_Senders.size() >= kSendersKept) {
        m_Senders.clear();
    }
    Sender sender;
    m_FindSender.Begin(peer.bus, peer.name);
    if (m_FindSender.Step()) {
        sender.id = m_FindSender.Int(0);
        m_FindSender.Reset();
    } else {
        m_InsertSender.Run(peer.bus, peer.name, peer.uid, peer.pid, batch.arrival);
        sender.id = m_Database.LastId();
    }
    return m_Senders[peer.name] = std::move(sender);
}

bool CTYStore::Context::IsOf(const TYBatch& batch, std::size_t index) const {
    return url == batch.urls[index] && HasCommonPart(batch.records[index], common);
}

const CTYStore::Context& CTYStore::ContextOf(Sender& sender, const TYBatch& batch,
                                             std::size_t index) {
    for (auto known = sender.contexts.begin(); known != sender.contexts.end(); ++known) {
        if (known->IsOf(batch, index)) {
            sender.contexts.splice(sender.contexts.begin(), sender.contexts, known);
            return sender.contexts.front();
        }
    }
    const TYMediaData& record = batch.records[index];
    const std::optional<std::string>& url = batch.urls[index];
    const TYRecordTexts texts = TextsOf(record);
    Context context{CommonPart(record), url, 0, 0};
    context.playback = PlaybackOf(sender, texts.playbackID, texts.serviceID, batch.arrival);
    context.id = InsertContext(context.playback, record, url, context.common);
    if (sender.contexts.size() >= kContextsKept) {
        sender.contexts.pop_back();
    }
    sender.contexts.push_front(std::move(context));
    return sender.contexts.front();
}

std::int64_t CTYStore::PlaybackOf(const Sender& sender, const std::string& playbackId,
                                  const std::string& serviceId, std::int64_t arrival) {
    m_FindPlayback.Begin(sender.id, playbackId);
    if (m_FindPlayback.Step()) {
        const std::int64_t id = m_FindPlayback.Int(0);
        m_FindPlayback.Reset();
        return id;
    }
    m_InsertPlayback.Run(sender.id, playbackId, serviceId, arrival, arrival);
    return m_Database.LastId();
}

std::int64_t CTYStore::InsertContext(std::int64_t playback, const TYMediaData& record,
                                     const std::optional<std::string>& url,
                                     const std::string& common) {
    const TYRecordTexts texts = TextsOf(record);
    m_InsertContext.Run(playback, record.playerID, record.networkType, texts.serviceVersion,
                        texts.serviceID, record.content.duration, url, record.content.drmType,
                        record.content.contentType, texts.channelID, texts.title, texts.genre,
                        texts.customInfo, TYBlob{common});
    m_nAdded += static_cast<std::int64_t>(2 * common.size() + (url ? url->size() : 0));
    return m_Database.LastId();
}

void CTYStore::InsertRun(std::int64_t context, std::int64_t arrival, Records records) {
    const auto count = static_cast<std::int64_t>(records.size());
    for (; records.size() >= kEntriesAtOnce; records = records.subspan(kEntriesAtOnce)) {
        InsertEntries(m_InsertEntries, context, arrival, records.first(kEntriesAtOnce));
    }
    for (; !records.empty(); records = records.subspan(1)) {
        InsertEntries(m_InsertEntry, context, arrival, records.first(1));
    }
    const std::int64_t last = m_Database.LastId();
    m_InsertRun.Run(last - count + 1, last, context, arrival);
    m_nAdded += count * kEntrySize;
}

void CTYStore::InsertEntries(CTYStatement& statement, std::int64_t context, std::int64_t arrival,
                             Records records) {
    statement.Reset();
    int index = 0;
    statement.Bind(++index, context);
    statement.Bind(++index, arrival);
    for (const TYMediaData& record : records) {
        statement.Bind(++index, record.event);
        statement.Bind(++index, record.param1);
        statement.Bind(++index, record.param2);
        statement.Bind(++index, record.time.sec);
        statement.Bind(++index, record.time.nsec);
        statement.Bind(++index, PaddingOf(record));
    }
    while (statement.Step()) {
    }
}

void CTYStore::AddTotals(std::int64_t playback, std::int64_t arrival, const Totals& totals) {
    m_UpdatePlayback.Run(arrival, totals.records, totals.watchedMs, totals.stalls, totals.stalledMs,
                         totals.errors, totals.startUpMs, totals.started, totals.ended,
                         totals.context, playback);
}

bool CTYStore::Prune(std::int64_t now) {
    m_nAdded = 0;
    Loss byAge;
    Loss bySize;
    CTYTransaction transaction(m_Database);
    for (int i = 0; i < kDropAtOnce && DropOldest(now, byAge, bySize); ++i) {
    }
    NoteLoss(now, "age", byAge);
    NoteLoss(now, "size", bySize);
    transaction.Commit();
    return byAge.playbacks + bySize.playbacks > 0 || ReturnFreePages();
}

bool CTYStore::DropOldest(std::int64_t now, Loss& byAge, Loss& bySize) {
    CTYStatement oldest(m_Database,
                        "SELECT id, sender, records, last_arrival FROM playbacks "
                        "ORDER BY last_arrival LIMIT 1");
    if (byAge.records + bySize.records >= kRecordsAtOnce || !oldest.Step()) {
        return false;
    }
    const bool isTooOld = oldest.Int(3) < now - std::chrono::nanoseconds(m_Limits.age).count();
    if (!isTooOld && UsedBytes() <= m_Limits.bytes) {
        return false;
    }
    Loss& loss = isTooOld ? byAge : bySize;
    ++loss.playbacks;
    loss.records += oldest.Int(2);
    const std::int64_t playback = oldest.Int(0);
    const std::int64_t sender = oldest.Int(1);
    oldest.Reset();
    Drop(playback, sender);
    return true;
}

void CTYStore::Drop(std::int64_t playback, std::int64_t sender) {
    // The cache may hold ids of the rows deleted here.
    m_Senders.clear();
    CTYStatement(m_Database, "DELETE FROM playbacks WHERE id = ?").Run(playback);
    CTYStatement(m_Database,
                 "DELETE FROM senders WHERE id = ?1 AND NOT EXISTS "
                 "(SELECT 1 FROM playbacks WHERE sender = ?1)")
        .Run(sender);
}

// Adds at most one row per hour and reason, so that the table losses stays small.
void CTYStore::NoteLoss(std::int64_t now, const char* pReason, const Loss& loss) {
    if (loss.playbacks == 0) {
        return;
    }
    CTYStatement(m_Database,
                 "UPDATE losses SET playbacks = playbacks + ?, records = records + ? WHERE at > ? "
                 "AND id = (SELECT id FROM losses WHERE reason = ? ORDER BY id DESC LIMIT 1)")
        .Run(loss.playbacks, loss.records, now - std::chrono::nanoseconds(kLossPeriod).count(),
             pReason);
    if (m_Database.Changes() == 0) {
        CTYStatement(m_Database,
                     "INSERT INTO losses(at, reason, playbacks, records) VALUES(?, ?, ?, ?)")
            .Run(now, pReason, loss.playbacks, loss.records);
    }
}

bool CTYStore::ReturnFreePages() {
    m_Database.Execute(kReturnSomePages);
    return m_Database.Number("PRAGMA freelist_count") > 0;
}

void CTYStore::EmptyLog() {
    m_Database.Execute("PRAGMA wal_checkpoint(TRUNCATE)");
}

std::int64_t CTYStore::UsedBytes() {
    return m_Database.Number("PRAGMA page_size") *
           (m_Database.Number("PRAGMA page_count") - m_Database.Number("PRAGMA freelist_count"));
}
