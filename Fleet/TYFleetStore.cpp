// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYFleetStore.h"

#include "TYLosses.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <utility>

// Problem: a few devices do not need a database server. Each record must be stored once, and those
// of a device in the order of ids.
//
// Idea: a store of the service already has all that the command reads. A device is a sender in it.
// Two tables say what is known of devices: coverage has ranges of ids that are stored or will never
// come, and origins says which key each entry has.
//
// Ranges that touch are merged, so a device that sends in order has one row.
//
// Always true:
// - Entries are written in one transaction with their coverage and their origins.
// - One collector uses the file: it holds a lock on it, because it looks at the coverage before the
//   transaction.

namespace {

// Whether the records are the reason, and not the disk, a lock or the file.
bool IsFaultOfTheBatch(const CTYDatabaseError& error) {
    return error.Kind() == SQLITE_CONSTRAINT || error.Kind() == SQLITE_TOOBIG;
}

template <class Operation>
auto Try(Operation operation) {
    try {
        return operation();
    } catch (const CTYDatabaseError& error) {
        if (IsFaultOfTheBatch(error)) {
            throw;
        }
        throw CTYDatabaseUnavailable(error.what());
    }
}

// The order in which batches are stored.
std::vector<std::size_t> OrderOf(std::span<const TYForwardedBatch> batches) {
    std::vector<std::size_t> order(batches.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::sort(order, {}, [&](std::size_t i) {
        return std::tie(batches[i].device, batches[i].epoch, batches[i].first);
    });
    return order;
}

}  // namespace

CTYFleetStore::CLock::CLock(const std::string& path)
    : m_nFd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR | S_IRGRP)) {
    if (m_nFd >= 0 && flock(m_nFd, LOCK_EX | LOCK_NB) != 0) {
        close(m_nFd);
        throw CTYDatabaseUnavailable("another collector uses " + path);
    }
}

CTYFleetStore::CLock::~CLock() {
    close(m_nFd);
}

CTYFleetStore::CTYFleetStore(const std::string& path, TYStoreLimits limits)
    : m_Lock(path),
      m_Store(path, limits),
      m_FindCovered(m_Store.Database(),
                    "SELECT 1 FROM coverage WHERE device = ?1 AND epoch = ?2 AND first = "
                    "(SELECT max(first) FROM coverage WHERE device = ?1 AND epoch = ?2 AND "
                    "first <= ?3) AND last >= ?3"),
      m_FindStored(m_Store.Database(),
                   "SELECT last FROM coverage WHERE device = ? AND epoch = ? AND first = 1"),
      m_Merge(m_Store.Database(),
              "SELECT min(first), max(last) FROM coverage WHERE device = ?1 AND epoch = ?2 AND "
              "first <= ?4 + 1 AND last >= ?3 - 1"),
      m_DropMerged(m_Store.Database(),
                   "DELETE FROM coverage WHERE device = ?1 AND epoch = ?2 AND "
                   "first <= ?4 + 1 AND last >= ?3 - 1"),
      m_Cover(m_Store.Database(),
              "INSERT INTO coverage(device, epoch, first, last) VALUES(?, ?, ?, ?)"),
      m_NoteOrigin(m_Store.Database(),
                   "INSERT INTO origins(first, last, device, epoch, origin) "
                   "SELECT max(id) - ?1 + 1, max(id), ?2, ?3, ?4 FROM entries") {
    // Devices drop what is stored here: it must survive a power failure.
    m_Store.Database().Execute("PRAGMA synchronous = FULL");
}

std::vector<TYWatermark> CTYFleetStore::Add(std::span<const TYForwardedBatch> batches) {
    return Try([&] {
        std::vector<TYWatermark> watermarks;
        for (const std::size_t i : OrderOf(batches)) {
            const TYForwardedBatch& batch = batches[i];
            Store(batch);
            if (watermarks.empty() || watermarks.back().device != batch.device ||
                watermarks.back().epoch != batch.epoch) {
                watermarks.push_back({batch.device, batch.epoch, 0});
            }
        }
        for (TYWatermark& watermark : watermarks) {
            watermark.stored = StoredUpTo(watermark.device, watermark.epoch);
        }
        return watermarks;
    });
}

std::vector<std::size_t> CTYFleetStore::TooEarly(std::span<const TYForwardedBatch> batches) {
    std::vector<std::size_t> early;
    std::map<std::pair<std::string, std::string>, std::int64_t> reached;
    for (const std::size_t i : OrderOf(batches)) {
        const TYForwardedBatch& batch = batches[i];
        const auto [last, isNew] = reached.try_emplace({batch.device, batch.epoch}, 0);
        if (isNew) {
            last->second = StoredUpTo(batch.device, batch.epoch);
        }
        if (batch.after > last->second) {
            early.push_back(i);
        } else {
            last->second = std::max(last->second, batch.Last());
        }
    }
    return early;
}

// A batch of the store has one arrival, and no record that is stored already. Each is one
// transaction.
void CTYFleetStore::Store(const TYForwardedBatch& batch) {
    const auto isNew = [&](std::size_t i) {
        return !IsCovered(batch.device, batch.KeyEpoch(),
                          batch.KeyFirst() + static_cast<std::int64_t>(i));
    };
    std::int64_t after = batch.after;
    for (std::size_t begin = 0; begin < batch.records.size();) {
        std::size_t end = begin + 1;
        if (isNew(begin)) {
            while (end < batch.records.size() && batch.arrivals[end] == batch.arrivals[begin] &&
                   isNew(end)) {
                ++end;
            }
            StoreRange(batch, begin, end, after);
            after = batch.first + static_cast<std::int64_t>(end) - 1;
        }
        begin = end;
    }
    if (after < batch.Last()) {
        CTYTransaction transaction(m_Store.Database());
        Cover(batch.device, batch.epoch, after + 1, batch.Last());
        transaction.Commit();
    }
}

/// @param begin  of the records, the first one
/// @param end    behind the last one
void CTYFleetStore::StoreRange(const TYForwardedBatch& batch, std::size_t begin, std::size_t end,
                               std::int64_t after) {
    const auto from = static_cast<std::ptrdiff_t>(begin);
    const auto to = static_cast<std::ptrdiff_t>(end);
    TYBatch part;
    part.sender = {"", batch.device, std::nullopt, std::nullopt};
    part.arrival = batch.arrivals[begin];
    part.records.assign(batch.records.begin() + from, batch.records.begin() + to);
    part.urls.assign(batch.urls.begin() + from, batch.urls.begin() + to);
    m_Store.Add(part, [&](CTYDatabase&) {
        NoteOrigin(batch, begin, end);
        Cover(batch.device, batch.epoch, after + 1, batch.first + to - 1);
        if (batch.origin) {
            Cover(batch.device, batch.origin->epoch, batch.origin->first + from,
                  batch.origin->first + to - 1);
        }
    });
}

void CTYFleetStore::NoteOrigin(const TYForwardedBatch& batch, std::size_t begin, std::size_t end) {
    m_NoteOrigin.Run(static_cast<std::int64_t>(end - begin), batch.device, batch.KeyEpoch(),
                     batch.KeyFirst() + static_cast<std::int64_t>(begin));
}

bool CTYFleetStore::IsCovered(const std::string& device, const std::string& epoch,
                              std::int64_t id) {
    return m_FindCovered.First(device, epoch, id).has_value();
}

void CTYFleetStore::Cover(const std::string& device, const std::string& epoch, std::int64_t first,
                          std::int64_t last) {
    m_Merge.Begin(device, epoch, first, last);
    std::int64_t mergedFirst = first;
    std::int64_t mergedLast = last;
    if (m_Merge.Step() && !m_Merge.IsNull(0)) {
        mergedFirst = std::min(first, m_Merge.Int(0));
        mergedLast = std::max(last, m_Merge.Int(1));
    }
    m_Merge.Reset();
    m_DropMerged.Run(device, epoch, first, last);
    m_Cover.Run(device, epoch, mergedFirst, mergedLast);
}

void CTYFleetStore::Refuse(const std::string& /*reason*/, const TYForwardedBatch* pRange,
                           std::int64_t last) {
    Try([&] {
        CTYLosses losses;
        losses.Count(TYLossReason::BAD_BATCH, "", 1);
        m_Store.NoteLosses(losses);
        if (pRange != nullptr) {
            CTYTransaction transaction(m_Store.Database());
            Cover(pRange->device, pRange->epoch, pRange->after + 1, last);
            transaction.Commit();
        }
    });
}

std::int64_t CTYFleetStore::StoredUpTo(const std::string& device, const std::string& epoch) {
    return Try([&] { return m_FindStored.First(device, epoch).value_or(0); });
}

void CTYFleetStore::Maintain() {
    Try([&] {
        while (m_Store.Prune()) {
        }
    });
}
