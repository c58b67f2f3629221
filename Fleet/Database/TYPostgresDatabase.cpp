// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPostgresDatabase.h"

#include "TYBatchStorer.h"
#include "TYPostgresSchema.h"

#include <algorithm>
#include <set>

// Problem: JetStream delivers a message again whenever in doubt, devices send again what the
// database does not have, several collectors run at once, and every record must be stored once, at
// tens of thousands a second.
//
// Idea: one transaction stores many batches. It locks their devices, reads which ids are covered,
// leaves out records whose ids are, and writes the rest with one COPY for each table: no row can
// conflict. What is covered and the records are committed together, so that a message which is
// delivered again adds nothing.
//
// Always true:
// - A record is in entries only if its key is covered.
// - The memory of this object is bounded by the caches of its tables; that of a call is
//   proportional to its batches and to the timelines of their playbacks.
// - After a failure, all caches are empty, and the next call connects again if it has to.

namespace {

constexpr const char* kCountRefusal =
    "INSERT INTO refusals(day, reason, messages) VALUES($1::date, $2, 1) "
    "ON CONFLICT(day, reason) DO UPDATE SET messages = refusals.messages + 1";

// The epoch of recovered records is the older one: their playbacks begin there.
std::vector<TYSourceName> NamesOf(std::span<const TYForwardedBatch> batches) {
    std::set<TYSourceName> older;
    std::set<TYSourceName> newer;
    for (const TYForwardedBatch& batch : batches) {
        newer.insert({batch.device, batch.epoch});
        if (batch.origin) {
            older.insert({batch.device, batch.origin->epoch});
        }
    }
    std::vector<TYSourceName> names(older.begin(), older.end());
    for (const TYSourceName& name : newer) {
        if (!older.contains(name)) {
            names.push_back(name);
        }
    }
    return names;
}

}  // namespace

CTYPostgresDatabase::CTYPostgresDatabase(const std::string& url, TYPostgresOptions options)
    : m_Options(options), m_Connection(url, "tallyra-collect"), m_Partitions(options.shift) {
    m_Connection.Run([](pqxx::connection& connection) { MigratePostgresSchema(connection); });
}

template <class Function>
auto CTYPostgresDatabase::Run(const Function& function) {
    try {
        return m_Connection.Run(function);
    } catch (...) {
        Forget();
        throw;
    }
}

void CTYPostgresDatabase::Forget() {
    m_Partitions.Forget();
    m_Sources.Forget();
    m_Contexts.Forget();
}

std::vector<TYWatermark> CTYPostgresDatabase::Add(std::span<const TYForwardedBatch> batches) {
    std::ranges::for_each(batches, CTYBatchStorer::Check);
    return Run([&](pqxx::connection& connection) { return TryToAdd(connection, batches); });
}

std::vector<TYWatermark> CTYPostgresDatabase::TryToAdd(pqxx::connection& connection,
                                                       std::span<const TYForwardedBatch> batches) {
    const std::string day = m_Partitions.Today(connection);
    const std::vector<TYSourceName> names = NamesOf(batches);
    m_Sources.Register(connection, names);
    std::vector<TYSource> sources;
    for (const TYSourceName& name : names) {
        sources.push_back(m_Sources.Find(name));
    }
    pqxx::work work(connection);
    CTYSourceTable::Coverages covered = CTYSourceTable::Lock(work, sources);
    CTYBatchStorer storer(work, day, m_Sources, covered, m_Contexts);
    std::set<TYSourceName> told;
    for (const TYForwardedBatch& batch : batches) {
        storer.Add(batch);
        told.insert({batch.device, batch.epoch});
    }
    storer.Write();
    work.commit();
    std::vector<TYWatermark> watermarks;
    for (const TYSourceName& name : told) {
        const CTYCoverage& coverage = covered.at(m_Sources.Find(name).id);
        watermarks.push_back({name.device, name.epoch, coverage.Watermark()});
    }
    return watermarks;
}

void CTYPostgresDatabase::Refuse(const std::string& reason, const TYForwardedBatch* pRange,
                                 std::int64_t last) {
    const bool isRange = pRange != nullptr && CTYSourceTable::IsEpoch(pRange->epoch) &&
                         CTYBatchStorer::IsRange(pRange->after, last);
    Run([&](pqxx::connection& connection) {
        TryToRefuse(connection, reason, isRange ? pRange : nullptr, last);
    });
}

void CTYPostgresDatabase::TryToRefuse(pqxx::connection& connection, const std::string& reason,
                                      const TYForwardedBatch* pRange, std::int64_t last) {
    const std::string day = m_Partitions.Today(connection);
    if (pRange != nullptr) {
        m_Sources.Register(connection, {{pRange->device, pRange->epoch}});
    }
    pqxx::work work(connection);
    work.exec_params0(kCountRefusal, day, reason);
    if (pRange != nullptr) {
        const TYSource source = m_Sources.Find({pRange->device, pRange->epoch});
        CTYSourceTable::Coverages covered = CTYSourceTable::Lock(work, {source});
        covered.at(source.id).Add(pRange->after + 1, last);
        CTYSourceTable::Save(work, covered);
    }
    work.commit();
}

std::int64_t CTYPostgresDatabase::StoredUpTo(const std::string& device, const std::string& epoch) {
    if (!CTYSourceTable::IsEpoch(epoch)) {
        return 0;
    }
    return Run([&](pqxx::connection& connection) {
        pqxx::nontransaction reading(connection);
        return CTYSourceTable::Read(reading, {device, epoch}).Watermark();
    });
}

void CTYPostgresDatabase::Maintain() {
    Run([&](pqxx::connection& connection) {
        m_Partitions.Make(connection);
        m_Partitions.DropOld(connection, m_Options.keepDays);
    });
}
