// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYKEPTROWS_H
#define TALLYRA_TYKEPTROWS_H

#include "TYDatabase.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

/// The rows that a new store takes over from the damaged one that it replaces: what operators have
/// set (policies and bindings), losses, how far the recovery of older files has come, and whether
/// the device forwards its records.
///
/// Threads: one.
class CTYKeptRows {
  public:
    /// Reads policies and bindings.
    /// @throws CTYDatabaseError  if SQLite fails; the object is then unchanged
    void ReadSettings(CTYDatabase& store);

    /// Reads all five tables of a store, of any schema version. A table that cannot be read keeps
    /// the rows that were read before.
    void ReadWhatIsLeft(CTYDatabase& damaged);

    /// Inserts the rows. Call it within a transaction.
    void Write(CTYDatabase& store) const;

    void Clear();

  private:
    using Value = std::variant<std::int64_t, std::string>;
    using Row = std::vector<Value>;

    static constexpr std::size_t kSettings = 2;
    static constexpr std::size_t kTables = 5;

    static std::vector<Row> Read(CTYDatabase& database, const char* pSelect);

    std::array<std::vector<Row>, kTables> m_Rows;
};

#endif  // TALLYRA_TYKEPTROWS_H
