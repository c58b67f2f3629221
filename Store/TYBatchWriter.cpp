// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYBatchWriter.h"

#include "TYEventCodes.h"
#include "TYRecordImage.h"
#include "TYStoreClock.h"

#include <cstring>
#include <map>
#include <utility>

// Problem: the service must commit a batch before it answers, thousands of records arrive each
// second, and almost all of a record's 4800 bytes equal those of the record before it.
//
// Idea: store the shared bytes once as a context (see TYSchema.cpp) and each record as a row of
// small integers. Write splits a batch into runs: maximal sequences of records with the same
// context. A run costs one row in runs, and one INSERT for as many as 36 entries.
//
// A lookup in the database for each run would still dominate, so the writer caches for each sender
// the database ids of its last contexts, most recently used first. A record matches a cached
// context if its URL and its common bytes are equal; comparing them in place is cheaper than
// hashing them. A context that is not cached gets a new row, even if the database holds an equal
// one: duplicates cost space, never correctness.
//
// Always true:
// - Between calls, every id in the cache names a committed row. So all of it is forgotten when a
//   transaction is rolled back or when another connection has written, and dropped rows are.
// - The cache is bounded: it holds kSendersKept senders, kLiveContexts contexts of each, and about
//   kBytesKept of texts. The senders that were not used for the longest time go first.
// - The totals in playbacks equal the sums over the entries of the playback, and holdings the sums
//   over the playbacks of a user, because one transaction writes them.

namespace {

constexpr std::size_t kSendersKept = 1024;
constexpr std::size_t kBytesKept = std::size_t{4} << 20;
// Records per INSERT statement: starting and ending a statement costs more than binding a row. The
// library sends 36 records in a full batch.
constexpr std::array<std::size_t, 3> kEntriesAtOnce = {36, 12, 1};

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

bool IsInsideCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U;
}

}  // namespace

/// What the records of a batch add to the totals of their playback.
struct CTYBatchWriter::Totals {
    std::int64_t records = 0;
    std::int64_t watchedMs = 0;
    std::int64_t stalls = 0;
    std::int64_t stalledMs = 0;
    std::int64_t errors = 0;
    std::int64_t bytes = 0;
    std::int64_t lastEntry = 0;
    std::optional<std::int64_t> startUpMs;
    std::optional<std::int64_t> started;
    std::optional<std::int64_t> ended;
    std::optional<std::int64_t> context;

    void Count(const TYMediaData& record, std::int64_t contextId) {
        ++records;
        bytes += CTYRunDropper::kEntryBytes;
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

CTYBatchWriter::CTYBatchWriter(CTYDatabase& database)
    : m_Database(database),
      m_FindSender(database,
                   "SELECT id, coalesce(uid, -1) FROM senders WHERE bus = ? AND name = ?"),
      m_InsertSender(database,
                     "INSERT INTO senders(bus, name, uid, pid, first_arrival) "
                     "VALUES(?, ?, ?, ?, ?)"),
      m_CountBatch(database, "UPDATE senders SET batches = batches + 1 WHERE id = ?"),
      m_FindPlayback(database, "SELECT id FROM playbacks WHERE sender = ? AND playback_id = ?"),
      m_InsertPlayback(database,
                       "INSERT INTO playbacks(sender, playback_id, service_id, uid, "
                       "first_arrival, last_arrival) VALUES(?, ?, ?, ?, ?, ?)"),
      // An arrival in the future, from a clock that was wrong, counts as now.
      m_UpdatePlayback(
          database,
          "UPDATE playbacks SET last_arrival = max(min(last_arrival, ?), ?), "
          "records = records + ?, watched_ms = watched_ms + ?, stalls = stalls + ?, "
          "stalled_ms = stalled_ms + ?, errors = errors + ?, bytes = bytes + ?, last_entry = ?, "
          "startup_ms = coalesce(startup_ms, ?), "
          "started_sec = coalesce(started_sec, ?), ended_sec = coalesce(?, ended_sec), "
          "context = coalesce(?, context) WHERE id = ?"),
      m_AddHolding(database,
                   "INSERT INTO holdings(uid, bytes) VALUES(?, ?) "
                   "ON CONFLICT(uid) DO UPDATE SET bytes = bytes + excluded.bytes"),
      m_InsertContext(database,
                      "INSERT INTO contexts(playback, player_id, network_type, service_version, "
                      "service_id, duration, url, url_cut, drm_type, content_type, channel_id, "
                      "title, genre, custom_info, common) "
                      "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
      m_InsertEntries{CTYStatement(database, SqlForEntries(kEntriesAtOnce[0])),
                      CTYStatement(database, SqlForEntries(kEntriesAtOnce[1])),
                      CTYStatement(database, SqlForEntries(kEntriesAtOnce[2]))},
      m_InsertRun(database,
                  "INSERT INTO runs(first, last, context, arrival, clock) VALUES(?, ?, ?, ?, ?)") {}

std::int64_t CTYBatchWriter::Write(const TYBatch& batch, const TYMoment& now) {
    MakeRoom();
    Sender& sender = SenderOf(batch);
    m_CountBatch.Run(sender.id);
    std::map<std::int64_t, Totals> totals;
    for (std::size_t i = 0; i < batch.records.size();) {
        Context& context = ContextOf(sender, batch, i);
        Totals& total = totals[context.playback];
        total.bytes += std::exchange(context.newBytes, 0);
        const std::size_t begin = i;
        do {
            total.Count(batch.records[i++], context.id);
        } while (i < batch.records.size() && context.IsOf(batch, i));
        total.lastEntry = InsertRun(context.id, batch.arrival, now.clock,
                                    Records(batch.records).subspan(begin, i - begin));
    }
    std::int64_t bytes = 0;
    for (const auto& [playback, total] : totals) {
        AddTotals(playback, batch, now.times.wall, total);
        bytes += total.bytes;
    }
    m_AddHolding.Run(sender.uid, bytes);
    return bytes;
}

void CTYBatchWriter::Forget() {
    m_ByName.clear();
    m_Senders.clear();
    m_nCached = 0;
}

void CTYBatchWriter::Forget(const TYDroppedRows& rows) {
    for (auto sender = m_Senders.begin(); !rows.contexts.empty() && sender != m_Senders.end();) {
        const auto next = std::next(sender);
        if (rows.senders.contains(sender->id)) {
            Forget(sender);
        } else {
            sender->contexts.remove_if([&](const Context& context) {
                const bool isDropped = rows.contexts.contains(context.id);
                m_nCached -= isDropped ? context.Bytes() : 0;
                return isDropped;
            });
        }
        sender = next;
    }
}

void CTYBatchWriter::Forget(Senders::iterator sender) {
    for (const Context& context : sender->contexts) {
        m_nCached -= context.Bytes();
    }
    m_ByName.erase(sender->name);
    m_Senders.erase(sender);
}

void CTYBatchWriter::MakeRoom() {
    while (m_Senders.size() >= kSendersKept || m_nCached > kBytesKept) {
        Forget(std::prev(m_Senders.end()));
    }
}

CTYBatchWriter::Sender& CTYBatchWriter::SenderOf(const TYBatch& batch) {
    const TYPeerIdentity& peer = batch.sender;
    if (const auto known = m_ByName.find(peer.name); known != m_ByName.end()) {
        if (known->second->bus == peer.bus) {
            m_Senders.splice(m_Senders.begin(), m_Senders, known->second);
            return m_Senders.front();
        }
        Forget(known->second);
    }
    m_Senders.push_front(FindOrInsert(batch));
    m_ByName[peer.name] = m_Senders.begin();
    return m_Senders.front();
}

CTYBatchWriter::Sender CTYBatchWriter::FindOrInsert(const TYBatch& batch) {
    const TYPeerIdentity& peer = batch.sender;
    Sender sender{peer.bus, peer.name, 0, peer.uid.value_or(-1), {}};
    m_FindSender.Begin(peer.bus, peer.name);
    if (m_FindSender.Step()) {
        sender.id = m_FindSender.Int(0);
        sender.uid = m_FindSender.Int(1);
        m_FindSender.Reset();
    } else {
        m_InsertSender.Run(peer.bus, peer.name, peer.uid, peer.pid, batch.arrival);
        sender.id = m_Database.LastId();
    }
    return sender;
}

CTYBatchWriter::Url CTYBatchWriter::StoredUrl(const TYBatch& batch, std::size_t index) {
    const std::optional<std::string>& url = batch.urls[index];
    const std::int64_t cut = batch.urlCuts.empty() ? 0 : batch.urlCuts[index];
    if (!url || url->size() <= kMaxUrlBytes) {
        return {url, cut};
    }
    std::size_t size = kMaxUrlBytes;
    while (size > 0 && IsInsideCharacter((*url)[size])) {
        --size;
    }
    return {std::string_view(*url).substr(0, size),
            cut + static_cast<std::int64_t>(url->size() - size)};
}

bool CTYBatchWriter::Context::IsOf(const TYBatch& batch, std::size_t index) const {
    const Url stored = StoredUrl(batch, index);
    return url == stored.text && urlCut == stored.cut &&
           HasCommonPart(batch.records[index], common);
}

CTYBatchWriter::Context& CTYBatchWriter::ContextOf(Sender& sender, const TYBatch& batch,
                                                   std::size_t index) {
    for (auto known = sender.contexts.begin(); known != sender.contexts.end(); ++known) {
        if (known->IsOf(batch, index)) {
            sender.contexts.splice(sender.contexts.begin(), sender.contexts, known);
            return sender.contexts.front();
        }
    }
    sender.contexts.push_front(NewContext(sender, batch, index));
    m_nCached += sender.contexts.front().Bytes();
    if (sender.contexts.size() > CTYRunDropper::kLiveContexts) {
        m_nCached -= sender.contexts.back().Bytes();
        sender.contexts.pop_back();
    }
    return sender.contexts.front();
}

CTYBatchWriter::Context CTYBatchWriter::NewContext(const Sender& sender, const TYBatch& batch,
                                                   std::size_t index) {
    const TYMediaData& record = batch.records[index];
    const TYRecordTexts texts = TextsOf(record);
    const Url url = StoredUrl(batch, index);
    Context context{CommonPart(record), std::nullopt, url.cut, 0, 0, 0};
    FindOrInsertPlayback(sender, texts, batch.arrival, context);
    if (url.text) {
        context.url = std::string(*url.text);
    }
    m_InsertContext.Run(context.playback, record.playerID, record.networkType, texts.serviceVersion,
                        texts.serviceID, record.content.duration, url.text, url.cut,
                        record.content.drmType, record.content.contentType, texts.channelID,
                        texts.title, texts.genre, texts.customInfo, TYBlob{context.common});
    context.id = m_Database.LastId();
    context.newBytes += static_cast<std::int64_t>(context.Bytes() + context.common.size());
    return context;
}

void CTYBatchWriter::FindOrInsertPlayback(const Sender& sender, const TYRecordTexts& texts,
                                          std::int64_t arrival, Context& context) {
    if (const auto id = m_FindPlayback.First(sender.id, texts.playbackID)) {
        context.playback = *id;
        return;
    }
    m_InsertPlayback.Run(sender.id, texts.playbackID, texts.serviceID, sender.uid, arrival,
                         arrival);
    context.playback = m_Database.LastId();
    context.newBytes = CTYRunDropper::kPlaybackBytes;
}

/// @return id of the last entry
std::int64_t CTYBatchWriter::InsertRun(std::int64_t context, std::int64_t arrival,
                                       std::int64_t clock, Records records) {
    const auto count = static_cast<std::int64_t>(records.size());
    for (std::size_t i = 0; i < kEntriesAtOnce.size(); ++i) {
        const std::size_t atOnce = kEntriesAtOnce[i];
        for (; records.size() >= atOnce; records = records.subspan(atOnce)) {
            InsertEntries(m_InsertEntries[i], context, arrival, records.first(atOnce));
        }
    }
    const std::int64_t last = m_Database.LastId();
    m_InsertRun.Run(last - count + 1, last, context, arrival, clock);
    return last;
}

void CTYBatchWriter::InsertEntries(CTYStatement& statement, std::int64_t context,
                                   std::int64_t arrival, Records records) {
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

void CTYBatchWriter::AddTotals(std::int64_t playback, const TYBatch& batch, std::int64_t wall,
                               const Totals& totals) {
    m_UpdatePlayback.Run(wall, batch.arrival, totals.records, totals.watchedMs, totals.stalls,
                         totals.stalledMs, totals.errors, totals.bytes, totals.lastEntry,
                         totals.startUpMs, totals.started, totals.ended, totals.context, playback);
}
