// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYRecovery.h"

#include "TYLog.h"
#include "TYLosses.h"
#include "TYWallClock.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <utility>

// Problem: a damaged store is renamed and replaced by an empty one. Most of its records can still
// be read. They should come back without delaying the batches that arrive meanwhile, and exactly
// once, although the service may be killed at any time.
//
// Idea: walk over the ids of the damaged store and add what is there as batches, with the original
// sender and arrival. Each batch is added in one transaction with the position that follows it
// (table recoveries), so after a restart the walk goes on where it was.
//
// A range of ids that cannot be read is halved until the damage is a single id, which is skipped.
// Ranges double after each success. So a damaged page costs some hundred failing reads, and a gap
// of millions of unused ids costs a few.
//
// What is missing in the end is counted by the totals of the playbacks, which say how many records
// there were: they minus the recovered ones are the losses of each application. If the totals are
// damaged as well, the runs tell a number without an application; if these are, nobody knows.
//
// Recovered records get new ids, and their age starts at zero: nothing is dropped too early. The
// table origins says where they were, so that records which were forwarded before are not counted
// twice, see TYOrigins.cpp. Nothing of the state of forwarding is taken over but that there is one:
// the new store has an epoch of its own, of which nothing was sent yet.
//
// Always true:
// - The rows to keep are taken over before the first batch, in one transaction with the first row
//   for the file in recoveries.
// - The losses are written in one transaction with the position kDone. After it, only the mark and
//   then the rows in recoveries are left to be removed.
// - A record and its origin are written in one transaction.
// - A damaged file is never changed or deleted.

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

using Clock = std::chrono::steady_clock;

// Leaves the last batch of a step some time.
constexpr std::chrono::milliseconds kStep{40};
constexpr std::int64_t kLongestSpan = 1 << 16;
constexpr std::int64_t kDone = INT64_MAX;

std::string KeyOf(const std::string& file) {
    return std::filesystem::path(file).filename().string();
}

void Note(CTYDatabase& database, const std::string& file, const std::string& application,
          std::int64_t next, std::int64_t records) {
    CTYStatement(database,
                 "INSERT INTO recoveries(file, application, next, records) VALUES(?, ?, ?, ?) "
                 "ON CONFLICT(file, application) DO UPDATE SET next = excluded.next, "
                 "records = records + excluded.records")
        .Run(KeyOf(file), application, next, records);
}

std::int64_t PositionIn(CTYDatabase& database, const std::string& file) {
    CTYStatement position(database, "SELECT max(next) FROM recoveries WHERE file = ?");
    const std::string key = KeyOf(file);
    position.Begin(key);
    return position.Step() ? position.Int(0) : 0;
}

std::map<std::string, std::int64_t> RecoveredFrom(CTYDatabase& database, const std::string& file) {
    std::map<std::string, std::int64_t> recovered;
    CTYStatement rows(database, "SELECT application, records FROM recoveries WHERE file = ?");
    const std::string key = KeyOf(file);
    rows.Begin(key);
    while (rows.Step()) {
        recovered[std::string(rows.Text(0))] = rows.Int(1);
    }
    return recovered;
}

std::int64_t SumOf(const std::map<std::string, std::int64_t>& numbers) {
    std::int64_t sum = 0;
    for (const auto& [name, number] : numbers) {
        sum += number;
    }
    return sum;
}

}  // namespace

CTYRecovery::CTYRecovery(const CTYAside& aside, std::vector<std::string> files)
    : m_Aside(aside), m_Files(std::move(files)) {}

bool CTYRecovery::IsBegun(CTYDatabase& database, const std::string& file) const {
    return PositionIn(database, file) > 0;
}

void CTYRecovery::Begin(CTYStore& store, CTYKeptRows known) {
    CTYDatabase& database = store.Database();
    if (m_Files.empty() || IsBegun(database, m_Files.back())) {
        return;
    }
    // The newest file knows the settings, and how far the recovery of the others has come.
    if (CTYDamagedStore newest(m_Files.back()); newest.Database() != nullptr) {
        known.ReadWhatIsLeft(*newest.Database());
    }
    CTYTransaction transaction(database);
    known.Write(database);
    Note(database, m_Files.back(), "", 1, 0);
    transaction.Commit();
}

bool CTYRecovery::Step(CTYStore& store) {
    const Clock::time_point end = Clock::now() + kStep;
    while (!m_Files.empty() && Clock::now() < end) {
        if (m_pDamaged == nullptr) {
            OpenNext(store);
        }
        if (m_nNext <= m_nLast) {
            CopySome(store);
        } else {
            Finish(store);
        }
    }
    return !m_Files.empty();
}

void CTYRecovery::OpenNext(CTYStore& store) {
    m_pDamaged = std::make_unique<CTYDamagedStore>(m_Files.front());
    const std::int64_t position = PositionIn(store.Database(), m_Files.front());
    m_nNext = std::max(m_pDamaged->FirstId(), position);
    m_nLast = m_pDamaged->LastId();
    m_nSpan = 1;
}

void CTYRecovery::CopySome(CTYStore& store) {
    CTYDamagedStore::Found found;
    const std::int64_t last = std::min(m_nNext + m_nSpan - 1, m_nLast);
    try {
        found = m_pDamaged->Read(m_nNext, last);
    } catch (const CTYDatabaseError&) {
        SkipDamage();
        return;
    }
    m_nSpan = std::min(m_nSpan * 2, kLongestSpan);
    if (found.batch.records.empty()) {
        m_nNext = last + 1;
        return;
    }
    const auto records = static_cast<std::int64_t>(found.batch.records.size());
    store.Add(found.batch, [&](CTYDatabase& database) {
        Note(database, m_Files.front(), found.application, found.last + 1, records);
        WriteOrigins(database, found.origins,
                     database.Number("SELECT max(id) FROM entries") - records + 1);
    });
    m_nNext = found.last + 1;
}

void CTYRecovery::SkipDamage() {
    if (m_nSpan > 1) {
        m_nSpan /= 2;
    } else {
        ++m_nNext;
    }
}

void CTYRecovery::Finish(CTYStore& store) {
    CTYDatabase& database = store.Database();
    const std::string file = m_Files.front();
    if (PositionIn(database, file) < kDone) {
        const CTYLosses missing = Missing(database);
        CTYTransaction transaction(database);
        WriteLosses(database, missing, WallClockNow());
        Note(database, file, "", kDone, 0);
        transaction.Commit();
    }
    m_Aside.Unmark(file);
    CTYStatement(database, "DELETE FROM recoveries WHERE file = ?").Run(KeyOf(file));
    m_pDamaged.reset();
    m_Files.erase(m_Files.begin());
}

CTYLosses CTYRecovery::Missing(CTYDatabase& database) {
    const auto counted = m_pDamaged->Counted();
    auto recovered = RecoveredFrom(database, m_Files.front());
    const std::int64_t total = SumOf(recovered);
    CTYLosses missing;
    std::int64_t lost = 0;
    if (counted && counted->size() == 1 && counted->begin()->first.empty()) {
        recovered[""] = total;
    }
    for (const auto& [application, number] : counted.value_or(decltype(recovered)())) {
        const std::int64_t difference = std::max(number - recovered[application], std::int64_t{0});
        missing.Count(TYLossReason::DAMAGED, application, difference);
        lost += difference;
    }
    Report(total, lost, counted.has_value());
    return missing;
}

void CTYRecovery::Report(std::int64_t recovered, std::int64_t missing, bool isKnown) const {
    const std::string lost = isKnown ? std::to_string(missing) : "an unknown number";
    TY_LOG_ERROR("recovered %lld records from %s; %s could not be read",
                 static_cast<long long>(recovered), m_Files.front().c_str(), lost.c_str());
}
