// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStore.h"

#include "TYRecordImage.h"
#include "TYSchema.h"

#include <cstring>
#include <utility>

namespace {

// Caches are dropped rather than let grow with senders that come and go.
constexpr std::size_t kSendersKept = 1024;
// Playbacks that one transaction drops: it must not keep a sender waiting.
constexpr int kDropAtOnce = 16;

constexpr int kStart = 1;
constexpr int kStop = 2;
constexpr int kPlayingTime = 20;
constexpr int kStartUpTime = 21;
constexpr int kStallLength = 22;
constexpr int kFirstError = 200;

bool Prepare(CTYDatabase& database) {
    // Frees pages of dropped playbacks; takes effect only in an empty file.
    database.Execute("PRAGMA auto_vacuum = INCREMENTAL");
    // A commit is in the write-ahead log, and so in the kernel's hands, before it is answered: it
    // outlives this process. Only a power failure can take the last commits.
    database.Execute("PRAGMA journal_mode = WAL");
    database.Execute("PRAGMA synchronous = NORMAL");
    database.Execute("PRAGMA journal_size_limit = 16777216");
    database.Execute("PRAGMA foreign_keys = ON");
    TYMigrate(database);
    return true;
}

std::int64_t PaddingOf(const TYMediaData& record) {
    std::uint32_t padding = 0;
    std::memcpy(&padding, record.padding2, sizeof(record.padding2));
    return padding;
}

}  // namespace

/// What the records of a batch add to their playback.
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
            case kStart:
                started = record.time.sec;
                context = contextId;
                break;
            case kStop:
                ended = record.time.sec;
                break;
            case kPlayingTime:
                watchedMs += record.param2 > 0 ? record.param2 : 0;
                break;
            case kStartUpTime:
                startUpMs = startUpMs ? startUpMs : record.param1;
                break;
            case kStallLength:
                ++stalls;
                stalledMs += record.param1 > 0 ? record.param1 : 0;
                break;
            default:
                errors += record.event >= kFirstError ? 1 : 0;
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
      m_InsertEntry(m_Database,
                    "INSERT INTO entries(context, arrival, event, param1, param2, "
                    "time_sec, time_nsec, padding) VALUES(?, ?, ?, ?, ?, ?, ?, ?)"),
      m_FindPolicy(m_Database,
                   "SELECT value FROM policies WHERE application IN (?, '*') "
                   "ORDER BY application = '*' LIMIT 1") {}

void CTYStore::Add(const TYBatch& batch) {
    try {
        CTYTransaction transaction(m_Database);
        Insert(batch);
        transaction.Commit();
    } catch (...) {
        // They may hold rows that were rolled back.
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
    std::map<std::int64_t, Totals> totals;
    for (std::size_t i = 0; i < batch.records.size(); ++i) {
        const Context& context = ContextOf(sender, batch, i);
        InsertEntry(context.id, batch.arrival, batch.records[i]);
        totals[context.playback].Count(batch.records[i], context.id);
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

const CTYStore::Context& CTYStore::ContextOf(Sender& sender, const TYBatch& batch,
                                             std::size_t index) {
    const TYMediaData& record = batch.records[index];
    const std::optional<std::string>& url = batch.urls[index];
    std::string common = TYCommonPart(record);
    for (auto known = sender.contexts.begin(); known != sender.contexts.end(); ++known) {
        if (known->common == common && known->url == url) {
            sender.contexts.splice(sender.contexts.begin(), sender.contexts, known);
            return sender.contexts.front();
        }
    }
    const TYRecordTexts texts = TYTextsOf(record);
    Context context{std::move(common), url, 0, 0};
    context.playback = PlaybackOf(sender, texts.playbackID, texts.serviceID, batch.arrival);
    context.id = InsertContext(context.playback, record, url, context.common);
    if (sender.contexts.size() >= CONTEXTS_KEPT) {
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
    const TYRecordTexts texts = TYTextsOf(record);
    m_InsertContext.Run(playback, record.playerID, record.networkType, texts.serviceVersion,
                        texts.serviceID, record.content.duration, url, record.content.drmType,
                        record.content.contentType, texts.channelID, texts.title, texts.genre,
                        texts.customInfo, TYBlob{common});
    return m_Database.LastId();
}

void CTYStore::InsertEntry(std::int64_t context, std::int64_t arrival, const TYMediaData& record) {
    m_InsertEntry.Run(context, arrival, record.event, record.param1, record.param2, record.time.sec,
                      record.time.nsec, PaddingOf(record));
}

void CTYStore::AddTotals(std::int64_t playback, std::int64_t arrival, const Totals& totals) {
    m_UpdatePlayback.Run(arrival, totals.records, totals.watchedMs, totals.stalls, totals.stalledMs,
                         totals.errors, totals.startUpMs, totals.started, totals.ended,
                         totals.context, playback);
}

void CTYStore::Prune(std::int64_t now) {
    // Dropped rows may be those that the caches name.
    m_Senders.clear();
    const std::int64_t oldest = now - std::chrono::nanoseconds(m_Limits.age).count();
    while (DropOldest(now, "age", oldest)) {
    }
    while (UsedBytes() > m_Limits.bytes && DropOldest(now, "size", INT64_MAX)) {
    }
    m_Database.Execute("PRAGMA incremental_vacuum");
}

bool CTYStore::DropOldest(std::int64_t now, const char* pReason, std::int64_t before) {
    CTYTransaction transaction(m_Database);
    CTYStatement count(m_Database,
                       "SELECT count(*), total(records) FROM (SELECT records FROM playbacks "
                       "WHERE last_arrival < ? ORDER BY last_arrival LIMIT ?)");
    count.Begin(before, kDropAtOnce);
    count.Step();
    const std::int64_t playbacks = count.Int(0);
    const std::int64_t records = count.Int(1);
    count.Reset();
    if (playbacks == 0) {
        return false;
    }
    CTYStatement(m_Database,
                 "DELETE FROM playbacks WHERE id IN (SELECT id FROM playbacks "
                 "WHERE last_arrival < ? ORDER BY last_arrival LIMIT ?)")
        .Run(before, kDropAtOnce);
    CTYStatement(m_Database,
                 "DELETE FROM senders WHERE NOT EXISTS "
                 "(SELECT 1 FROM playbacks WHERE sender = senders.id)")
        .Run();
    CTYStatement(m_Database,
                 "INSERT INTO losses(at, reason, playbacks, records) VALUES(?, ?, ?, ?)")
        .Run(now, pReason, playbacks, records);
    transaction.Commit();
    return true;
}

std::int64_t CTYStore::UsedBytes() {
    return m_Database.Number("PRAGMA page_size") *
           (m_Database.Number("PRAGMA page_count") - m_Database.Number("PRAGMA freelist_count"));
}
