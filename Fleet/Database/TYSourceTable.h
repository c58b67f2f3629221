// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSOURCETABLE_H
#define TALLYRA_TYSOURCETABLE_H

#include "TYCoverage.h"

#include <compare>
#include <map>
#include <pqxx/pqxx>
#include <set>
#include <string>
#include <string_view>
#include <vector>

/// A store of a device.
struct TYSourceName {
    std::string device;
    std::string epoch;

    // clang-tidy 14 takes the zero that orderings are compared with for a pointer.
    auto operator<=>(const TYSourceName&) const = default;  // NOLINT(modernize-use-nullptr)
};

/// Its rows in the database.
struct TYSource {
    int id = 0;
    int device = 0;
};

/// The tables devices and sources. See TYSourceTable.cpp.
///
/// Threads: one.
class CTYSourceTable {
  public:
    /// A device has a new epoch with each new store.
    static constexpr int kMostEpochs = 1000;

    using Coverages = std::map<int, CTYCoverage>;  ///< by the source

    /// Makes the rows of sources that are not known, in a transaction of its own.
    /// @param names  of one device: the older store first
    /// @throws CTYBadBatch  if a device would have more than kMostEpochs
    void Register(pqxx::connection& connection, const std::vector<TYSourceName>& names);

    /// @param name  one that was registered
    const TYSource& Find(const TYSourceName& name) const { return m_Known.at(name); }

    /// Locks the devices of the sources until the end of the transaction.
    /// @return what is covered
    static Coverages Lock(pqxx::transaction_base& transaction,
                          const std::vector<TYSource>& sources);

    /// Adds the ids of all records that are stored, as they are not after a partial restore.
    /// @param coverages  of locked devices
    static void Restore(pqxx::transaction_base& transaction, Coverages& coverages);

    static void Save(pqxx::transaction_base& transaction, const Coverages& coverages);

    /// @return what is covered; nothing for an unknown source
    static CTYCoverage Read(pqxx::transaction_base& transaction, const TYSourceName& name);

    /// @return whether a text is a UUID in its canonical form
    static bool IsEpoch(std::string_view text);

    void Forget() { m_Known.clear(); }

  private:
    void Insert(pqxx::connection& connection, const std::vector<TYSourceName>& names);

    std::map<TYSourceName, TYSource> m_Known;
};

#endif  // TALLYRA_TYSOURCETABLE_H
