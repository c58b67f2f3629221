// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPARTITIONS_H
#define TALLYRA_TYPARTITIONS_H

#include <pqxx/pqxx>
#include <set>
#include <string>

/// The partitions of entries and contexts, one for each day. See TYPartitions.cpp.
///
/// Threads: one.
class CTYPartitions {
  public:
    /// @param shift  days by which the database's clock is taken to be ahead
    explicit CTYPartitions(int shift) : m_nShift(shift) {}

    /// @return the day by the database's clock, as 2026-11-23. There is a partition for it.
    std::string Today(pqxx::connection& connection);

    /// Makes the partitions of today and the next three days.
    void Make(pqxx::connection& connection);

    /// Drops partitions of the days before the last `keepDays` ones, at most two. One that cannot
    /// be dropped stays for a later call. Keeps the newest day that has records, and `keepDays`
    /// before.
    void DropOld(pqxx::connection& connection, int keepDays) const;

    /// Forgets which partitions there are.
    void Forget() { m_Days.clear(); }

  private:
    const int m_nShift;
    std::set<std::string> m_Days;  ///< those that have partitions
};

#endif  // TALLYRA_TYPARTITIONS_H
