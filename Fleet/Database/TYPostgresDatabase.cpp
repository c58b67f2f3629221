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
// A partial restore may lose what is covered, or set back the sequence of contexts. Then the COPY
// violates a primary key, and the transaction is tried once more, slower: it first adds to the
// coverage of its sources what entries has of them, on whatever day, and skips the ids of contexts
// that exist.
//
// A device chooses its epochs and ids, so their number is bounded: see kMostRanges and kMostEpochs.
//
// Always true:
// - A record is in entries only if its key is covered.
// - The memory of this object is bounded by the caches of its tables; that of a call is
//   proportional to its batches and to the timelines of their playbacks.
// - After a failure, all caches are empty, and the next call connects again if it has to. A batch
//   that the checks refuse changes neither caches nor connection.
// - Only a fault of a batch itself is told as one: CTYBadBatch and CTYDataRefused. With any other
//   error, the records stay in the stream and on the devices.

namespace {

constexpr const char* kCountRefusal =
    "INSERT INTO refusals(day, reason, messages) VALUES($1::date, $2, 1) "
    "ON CONFLICT(day, reason) DO UPDATE SET messages = refusals.messages + 1";

// Epochs of recovered records are the older ones: their playbacks begin there. Otherwise the
// stream's order is the best guess.
std::vector<TYSourceName> NamesOf(std::span<const TYForwardedBatch> batches) {
    std::vector<TYSourceName> names;
    std::set<TYSourceName> known;
    const auto add = [&](const TYSourceName& name) {
        if (known.insert(name).second) {
            names.push_back(name);
        }
    };
    for (const TYForwardedBatch& batch : batches) {
        if (batch.origin) {
            add({batch.device, batch.origin->epoch});
        }
    }
    for (const TYForwardedBatch& batch : batches) {
        add({batch.device, batch.epoch});
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
    } catch (const CTYBadBatch&) {
        throw;
    } catch (const CTYDataRefused&) {
        Forget();
        throw;
    } catch (const std::exception& error) {
        Forget();
        throw CTYDatabaseUnavailable(error.what());
    }
}

void CTYPostgresDatabase::Forget() {
    m_Partitions.Forget();
    m_Sources.Forget();
    m_Contexts.Forget();
}

std::vector<TYWatermark> CTYPostgresDatabase::Add(std::span<const TYForwardedBatch> batches) {
    std::ranges::for_each(batches, CTYBatchStorer::Check);
    return Run([&](pqxx::connection& connection) {
        try {
            return TryToAdd(connection, batches, Coverage::TRUSTED);
        } catch (const pqxx::unique_violation&) {
            m_Contexts.Forget();
            return TryToAdd(connection, batches, Coverage::RESTORED);
        }
    });
}

std::vector<TYWatermark> CTYPostgresDatabase::TryToAdd(pqxx::connection& connection,
                                                       std::span<const TYForwardedBatch> batches,
                                                       Coverage coverage) {
    const std::string day = m_Partitions.Today(connection);
    const std::vector<TYSourceName> names = NamesOf(batches);
    m_Sources.Register(connection, names);
    std::vector<TYSource> sources;
    sources.reserve(names.size());
    for (const TYSourceName& name : names) {
        sources.push_back(m_Sources.Find(name));
    }
    pqxx::work work(connection);
    CTYSourceTable::Coverages covered = CTYSourceTable::Lock(work, sources);
    if (coverage == Coverage::RESTORED) {
        CTYSourceTable::Restore(work, covered);
        m_Contexts.SkipUsedIds(work);
    }
    CheckGaps(batches, covered);
    CTYBatchStorer storer(work, day, m_Sources, covered, m_Contexts);
    std::set<TYSourceName> told;
    for (const TYForwardedBatch& batch : batches) {
        storer.Add(batch);
        told.insert({batch.device, batch.epoch});
    }
    storer.Write();
    work.commit();
    return WatermarksOf(told, covered);
}

// Adds nothing to the coverage of the sources, so that the storer finds which records are new.
void CTYPostgresDatabase::CheckGaps(std::span<const TYForwardedBatch> batches,
                                    const CTYSourceTable::Coverages& covered) const {
    CTYSourceTable::Coverages planned = covered;
    for (const TYForwardedBatch& batch : batches) {
        CTYBatchStorer::Cover(batch, m_Sources, planned);
    }
    for (const auto& [id, coverage] : planned) {
        if (!coverage.MayFollow(covered.at(id))) {
            throw CTYBadBatch("too many gaps");
        }
    }
}

std::vector<TYWatermark> CTYPostgresDatabase::WatermarksOf(
    const std::set<TYSourceName>& names, const CTYSourceTable::Coverages& covered) const {
    std::vector<TYWatermark> watermarks;
    watermarks.reserve(names.size());
    for (const TYSourceName& name : names) {
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
        try {
            TryToRefuse(connection, reason, isRange ? pRange : nullptr, last);
        } catch (const CTYBadBatch&) {
            TryToRefuse(connection, reason, nullptr, last);
        }
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
        const CTYCoverage before = covered.at(source.id);
        covered.at(source.id).Add(pRange->after + 1, last);
        if (!covered.at(source.id).MayFollow(before)) {
            throw CTYBadBatch("too many gaps");
        }
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
