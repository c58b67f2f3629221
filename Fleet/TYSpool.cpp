// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSpool.h"

#include "TYForwardMessage.h"
#include "TYRecordImage.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

// Problem: the store is written by the service while it is read here, and retention drops entries
// from it. What was sent once must be sendable again with the same bounds.
//
// Idea: ids are never given twice, so a pair of ids names the same entries for ever, or what is
// left of them. Find chooses bounds, which its caller writes down before it sends; Read reads
// within bounds, however many entries are left.
//
// Always true:
// - Bounds of successive batches do not overlap, and `after` of each is the end of the one before:
//   what lies between was dropped, or may not leave the device.

namespace {

constexpr std::size_t kContextsKept = 16;

enum EntryColumn { ID, CONTEXT, ARRIVAL, EVENT, PARAM1, PARAM2, TIME_SEC, TIME_NSEC, PADDING };

TYMediaData RecordOf(const std::string& common, const CTYStatement& row) {
    auto record = RecordFromCommonPart(common);
    if (!record) {
        throw CTYDatabaseError(SQLITE_CORRUPT, "a context is longer than a record");
    }
    record->event = static_cast<std::uint8_t>(row.Int(EVENT));
    record->param1 = row.Int32(PARAM1);
    record->param2 = row.Int32(PARAM2);
    record->time = {row.Int32(TIME_SEC), row.Int32(TIME_NSEC)};
    const auto padding = static_cast<std::uint32_t>(row.Int(PADDING));
    std::memcpy(record->padding2, &padding, sizeof(record->padding2));
    return *record;
}

}  // namespace

std::string StrippedUrl(std::string_view url) {
    url = url.substr(0, url.find_first_of("?#"));
    const std::size_t slashes = url.find("//");
    if (slashes == url.npos) {
        return std::string(url);
    }
    const std::size_t host = slashes + 2;
    const std::string_view authority = url.substr(host, url.substr(host).find('/'));
    const std::size_t at = authority.rfind('@');
    const std::size_t begin = host + (at == authority.npos ? 0 : at + 1);
    return std::string(url.substr(0, host)) + std::string(url.substr(begin));
}

CTYSpool::CTYSpool(CTYDatabase& database, std::string device, bool keepQueries)
    : m_strDevice(std::move(device)),
      m_bKeepQueries(keepQueries),
      m_Policies(database),
      m_FindEntries(database, "SELECT id, context FROM entries WHERE id > ? ORDER BY id"),
      m_ReadEntries(database,
                    "SELECT id, context, arrival, event, param1, param2, time_sec, time_nsec, "
                    "padding FROM entries WHERE id BETWEEN ? AND ? ORDER BY id"),
      m_FindContext(database, "SELECT common, url, service_id FROM contexts WHERE id = ?"),
      m_FindOrigin(database,
                   "SELECT first, last, epoch, origin FROM origins WHERE first <= ?1 AND "
                   "device = '' ORDER BY first DESC LIMIT 1"),
      m_FindLast(database, "SELECT seq FROM sqlite_sequence WHERE name = 'entries'") {
    CTYStatement epoch(database, "SELECT epoch FROM store");
    if (!epoch.Step()) {
        throw CTYDatabaseError(SQLITE_CORRUPT, "the table store is empty");
    }
    m_strEpoch = epoch.Text(0);
}

std::int64_t CTYSpool::LastId() {
    return m_FindLast.First().value_or(0);
}

int CTYSpool::DefaultPolicy() {
    m_Policies.Forget();
    return m_Policies.Of("*").value;
}

const CTYSpool::Context& CTYSpool::ContextOf(std::int64_t id) {
    const auto known = std::ranges::find(m_Contexts, id, &Context::id);
    if (known != m_Contexts.end()) {
        m_Contexts.splice(m_Contexts.begin(), m_Contexts, known);
        return m_Contexts.front();
    }
    m_FindContext.Begin(id);
    if (!m_FindContext.Step()) {
        throw CTYDatabaseError(SQLITE_CORRUPT, "an entry has no context");
    }
    Context context{id, std::string(m_FindContext.Text(0)), std::nullopt,
                    std::string(m_FindContext.Text(2))};
    if (!m_FindContext.IsNull(1)) {
        const std::string_view url = m_FindContext.Text(1);
        context.url = m_bKeepQueries ? std::string(url) : StrippedUrl(url);
    }
    m_FindContext.Reset();
    m_Contexts.push_front(std::move(context));
    if (m_Contexts.size() > kContextsKept) {
        m_Contexts.pop_back();
    }
    return m_Contexts.front();
}

/// @return where the record of an entry was before; nothing if it was recorded in this store
std::optional<TYForwardedBatch::Origin> CTYSpool::OriginOf(std::int64_t id) {
    std::optional<TYForwardedBatch::Origin> origin;
    m_FindOrigin.Begin(id);
    if (m_FindOrigin.Step() && id <= m_FindOrigin.Int(1)) {
        origin = {std::string(m_FindOrigin.Text(2)),
                  m_FindOrigin.Int(3) + id - m_FindOrigin.Int(0)};
    }
    m_FindOrigin.Reset();
    return origin;
}

/// @return whether an entry can be the next one of a batch, as far as ids say
bool CTYSpool::Continues(const Bounds& bounds, std::int64_t id) {
    constexpr auto kMost = static_cast<std::int64_t>(CTYForwardMessage::kMostRecords);
    if (id != bounds.last + 1 || id - bounds.first >= kMost) {
        return false;
    }
    const auto before = OriginOf(bounds.last);
    const auto here = OriginOf(id);
    return before.has_value() == here.has_value() &&
           (!here || (here->epoch == before->epoch && here->first == before->first + 1));
}

std::optional<CTYSpool::Bounds> CTYSpool::Find(std::int64_t after, std::int64_t& passed,
                                               Withheld& withheld) {
    m_Contexts.clear();
    m_Policies.Forget();
    std::optional<Bounds> bounds;
    std::size_t urlBytes = 0;
    m_FindEntries.Begin(passed);
    while (m_FindEntries.Step()) {
        const std::int64_t id = m_FindEntries.Int(0);
        const Context& context = ContextOf(m_FindEntries.Int(1));
        const bool isWithheld = m_Policies.Of(context.application).value == 0;
        urlBytes += context.url ? context.url->size() : 0;
        if (!bounds && isWithheld) {
            ++withheld[context.application];
            passed = id;
            urlBytes = 0;
        } else if (!bounds) {
            bounds = Bounds{after, id, id};
        } else if (isWithheld || urlBytes > CTYForwardMessage::kMostUrlBytes ||
                   !Continues(*bounds, id)) {
            break;
        } else {
            bounds->last = id;
        }
    }
    m_FindEntries.Reset();
    return bounds;
}

TYForwardedBatch CTYSpool::NewBatch(std::int64_t after, std::int64_t first) const {
    TYForwardedBatch batch;
    batch.device = m_strDevice;
    batch.epoch = m_strEpoch;
    batch.after = after;
    batch.first = first;
    return batch;
}

std::vector<TYForwardedBatch> CTYSpool::Read(const Bounds& bounds) {
    m_Contexts.clear();
    std::vector<TYForwardedBatch> batches;
    std::int64_t covered = bounds.after;
    m_ReadEntries.Begin(bounds.first, bounds.last);
    while (m_ReadEntries.Step()) {
        const std::int64_t id = m_ReadEntries.Int(ID);
        if (batches.empty() || id != covered + 1) {
            batches.push_back(NewBatch(covered, id));
            batches.back().origin = OriginOf(id);
        }
        const Context& context = ContextOf(m_ReadEntries.Int(CONTEXT));
        batches.back().records.push_back(RecordOf(context.common, m_ReadEntries));
        batches.back().urls.push_back(context.url);
        batches.back().arrivals.push_back(m_ReadEntries.Int(ARRIVAL));
        covered = id;
    }
    m_ReadEntries.Reset();
    if (covered < bounds.last) {
        batches.push_back(NewBatch(covered, bounds.last + 1));
    }
    return batches;
}
