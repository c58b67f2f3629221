// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCONTEXTTABLE_H
#define TALLYRA_TYCONTEXTTABLE_H

#include "TYMediaData.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <pqxx/pqxx>
#include <string>
#include <unordered_map>
#include <vector>

/// The table contexts: gives equal contexts of a day the same row where it can. See
/// TYContextTable.cpp.
///
/// Threads: one.
class CTYContextTable {
  public:
    static constexpr std::size_t kMostKept = 200'000;

    /// Begins a transaction.
    /// @param day  as 2026-11-23
    void Begin(const std::string& day);

    /// @return the id of a context with the bytes and the URL of a record
    std::int64_t IdOf(pqxx::transaction_base& transaction, int device, const TYMediaData& record,
                      const std::optional<std::string>& url);

    /// Writes the new contexts. Call Forget if it throws or if the transaction is not committed.
    void Write(pqxx::transaction_base& transaction);

    /// Skips the ids of all rows. Call it before IdOf if the sequence may be behind them.
    void SkipUsedIds(pqxx::transaction_base& transaction);

    /// Forgets all contexts.
    void Forget();

  private:
    using Digests = std::list<std::string>;
    struct Known {
        std::int64_t id;
        Digests::iterator used;
    };
    struct New {
        std::int64_t id;
        int device;
        TYMediaData record;
        std::string common;
        std::optional<std::string> url;
    };

    std::int64_t NextId(pqxx::transaction_base& transaction);
    void Remember(const std::string& digest, std::int64_t id);

    std::string m_strDay;
    std::unordered_map<std::string, Known> m_Known;  ///< by the digest of the content
    Digests m_Used;                                  ///< most recently used first
    std::vector<New> m_New;                          ///< not written yet
    std::int64_t m_nNextId = 0;
    std::int64_t m_nLeftIds = 0;  ///< ids that this object has taken from the sequence
};

#endif  // TALLYRA_TYCONTEXTTABLE_H
