// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPOLICIES_H
#define TALLYRA_TYPOLICIES_H

#include "TYDatabase.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// What an operator decided about the records of an application.
struct TYPolicy {
    int value = 1;                   ///< 0 refuses the records
    bool keepQueries = false;        ///< whether the queries of its URLs are stored as they are
    std::vector<std::int64_t> uids;  ///< users that may send for it; empty: all users

    /// @param uid  nothing if it is unknown
    /// @return whether this user may send records of the application
    bool Admits(std::optional<std::int64_t> uid) const;
};

/// The policies of a store, cached. Throws CTYDatabaseError when SQLite fails.
///
/// Threads: one, that of the database.
class CTYPolicies {
  public:
    explicit CTYPolicies(CTYDatabase& database);

    /// @return the application's policy and bindings; if it has neither, those of "*"
    TYPolicy Of(const std::string& application);

    /// Empties the cache, because the tables have changed.
    void Forget() { m_Known.clear(); }

  private:
    std::optional<TYPolicy> Read(const std::string& application);

    CTYStatement m_FindPolicy;
    CTYStatement m_FindUids;
    std::map<std::string, TYPolicy> m_Known;
};

#endif  // TALLYRA_TYPOLICIES_H
