// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPOSTGRESDATABASE_H
#define TALLYRA_TYPOSTGRESDATABASE_H

#include "ITYFleetDatabase.h"
#include "TYContextTable.h"
#include "TYPartitions.h"
#include "TYPostgresConnection.h"
#include "TYSourceTable.h"

#include <set>
#include <string>

/// Settings of CTYPostgresDatabase.
struct TYPostgresOptions {
    int keepDays = 90;  ///< older records are dropped, by the day on which they were stored
    int shift = 0;      ///< days by which the database's clock is taken to be ahead
};

/// The records of all devices in PostgreSQL. See TYPostgresDatabase.cpp.
///
/// Texts of exceptions never contain the password of the URL.
///
/// Threads: one. Any number of objects and processes may use one database.
class CTYPostgresDatabase : public ITYFleetDatabase {
  public:
    /// Connects, and makes the tables or upgrades them.
    /// @param url  postgresql://...
    /// @throws CTYDatabaseUnavailable  as Add
    /// @throws std::runtime_error      if the tables are those of a newer version
    explicit CTYPostgresDatabase(const std::string& url, TYPostgresOptions options = {});

    std::vector<TYWatermark> Add(std::span<const TYForwardedBatch> batches) override;
    void Refuse(const std::string& reason, const TYForwardedBatch* pRange,
                std::int64_t last) override;
    std::int64_t StoredUpTo(const std::string& device, const std::string& epoch) override;
    void Maintain() override;

  private:
    /// What a transaction takes sources.covered for.
    enum class Coverage { TRUSTED, RESTORED };

    template <class Function>
    auto Run(const Function& function);
    void Forget();
    std::vector<TYWatermark> TryToAdd(pqxx::connection& connection,
                                      std::span<const TYForwardedBatch> batches, Coverage coverage);
    void CheckGaps(std::span<const TYForwardedBatch> batches,
                   const CTYSourceTable::Coverages& covered) const;
    std::vector<TYWatermark> WatermarksOf(const std::set<TYSourceName>& names,
                                          const CTYSourceTable::Coverages& covered) const;
    void TryToRefuse(pqxx::connection& connection, const std::string& reason,
                     const TYForwardedBatch* pRange, std::int64_t last);

    const TYPostgresOptions m_Options;
    CTYPostgresConnection m_Connection;
    CTYPartitions m_Partitions;
    CTYSourceTable m_Sources;
    CTYContextTable m_Contexts;
};

#endif  // TALLYRA_TYPOSTGRESDATABASE_H
