// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPlaybackLog.h"

#include "TYPacking.h"

#include <algorithm>

// Problem: the figures of a playback depend on all its records in their order, records come in any
// order, and a collector must not read entries to update a playback.
//
// Idea: the row of a playback has its records packed, about 10 bytes for each. With new ones, the
// collector unpacks, inserts, computes the figures again and packs. What does not count is left
// out: records after the first STOP, and those beyond kMostRecords, so that a player that never
// stops costs a bounded time.
//
// Always true:
// - The log depends on the set of records that were added, not on the order in which they came:
//   a record that was left out would be left out with more records, too.
// - Entries are in the order of their keys; only the last one may be a STOP.

namespace {

constexpr std::uint8_t kVersion = 1;

void Pack(const std::optional<TYRecordKey>& key, CTYPacker& packer) {
    packer.Add(key ? key->source : 0);
    packer.Add(key ? key->id : 0);
}

// Ids begin with 1.
std::optional<TYRecordKey> UnpackKey(CTYUnpacker& unpacker) {
    const std::int64_t source = unpacker.Take();
    const std::int64_t id = unpacker.Take();
    return id > 0 ? std::optional(TYRecordKey{source, id}) : std::nullopt;
}

TYTimelineRecord RecordOf(const TYMediaData& record) {
    return {0, record.time.sec * std::int64_t{1000} + record.time.nsec / 1'000'000, record.event,
            record.param1, record.param2};
}

}  // namespace

CTYPlaybackLog::CTYPlaybackLog(std::string_view packed) {
    CTYUnpacker unpacker(packed);
    unpacker.Expect(unpacker.TakeByte() == kVersion);
    for (auto* pKey : {&m_Marks.first, &m_Marks.last, &m_Marks.firstStart, &m_Marks.lastStart}) {
        *pKey = UnpackKey(unpacker);
    }
    Entry entry{};
    while (!unpacker.IsAtEnd()) {
        entry.key.source += unpacker.Take();
        entry.key.id += unpacker.Take();
        entry.record.time += unpacker.Take();
        entry.record.event = unpacker.TakeByte();
        entry.record.param1 = static_cast<std::int32_t>(unpacker.Take());
        entry.record.param2 = static_cast<std::int32_t>(unpacker.Take());
        m_Entries.push_back(entry);
    }
}

std::string CTYPlaybackLog::Pack() const {
    CTYPacker packer;
    packer.AddByte(kVersion);
    for (const auto& key : {m_Marks.first, m_Marks.last, m_Marks.firstStart, m_Marks.lastStart}) {
        ::Pack(key, packer);
    }
    Entry before{};
    for (const Entry& entry : m_Entries) {
        packer.Add(entry.key.source - before.key.source);
        packer.Add(entry.key.id - before.key.id);
        packer.Add(entry.record.time - before.record.time);
        packer.AddByte(static_cast<std::uint8_t>(entry.record.event));
        packer.Add(entry.record.param1);
        packer.Add(entry.record.param2);
        before = entry;
    }
    return packer.Bytes();
}

void CTYPlaybackLog::Add(const TYRecordKey& key, const TYMediaData& record) {
    Mark(key, record.event == TY_EVENT_START);
    const bool hasStop = !m_Entries.empty() && m_Entries.back().record.event == TY_EVENT_STOP;
    const bool isFull = m_Entries.size() == kMostRecords;
    if ((hasStop || isFull) && key > m_Entries.back().key) {
        return;
    }
    Insert({key, RecordOf(record)});
    if (m_Entries.size() > kMostRecords) {
        m_Entries.pop_back();
    }
}

void CTYPlaybackLog::Mark(const TYRecordKey& key, bool isStart) {
    m_Marks.first = std::min(key, m_Marks.first.value_or(key));
    m_Marks.last = std::max(key, m_Marks.last.value_or(key));
    if (isStart) {
        m_Marks.firstStart = std::min(key, m_Marks.firstStart.value_or(key));
        m_Marks.lastStart = std::max(key, m_Marks.lastStart.value_or(key));
    }
}

// Most records come in their order.
void CTYPlaybackLog::Insert(const Entry& entry) {
    const auto at = std::ranges::upper_bound(m_Entries, entry.key, {}, &Entry::key);
    const auto inserted = m_Entries.insert(at, entry);
    if (entry.record.event == TY_EVENT_STOP) {
        m_Entries.erase(std::next(inserted), m_Entries.end());
    }
}

std::vector<TYTimelineRecord> CTYPlaybackLog::Records() const {
    std::vector<TYTimelineRecord> records;
    records.reserve(m_Entries.size());
    for (const Entry& entry : m_Entries) {
        records.push_back(entry.record);
        records.back().id = static_cast<std::int64_t>(records.size());
    }
    return records;
}

bool CTYPlaybackLog::IsCut() const {
    return m_Entries.size() == kMostRecords && m_Marks.last > m_Entries.back().key &&
           m_Entries.back().record.event != TY_EVENT_STOP;
}
