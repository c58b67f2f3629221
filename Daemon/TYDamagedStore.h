// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYDAMAGEDSTORE_H
#define TALLYRA_TYDAMAGEDSTORE_H

#include "TYBatch.h"
#include "TYDatabase.h"
#include "TYOrigins.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// Reads what can be read of a damaged store. Trusts nothing in it: whatever does not fit together
/// is an error of the kind SQLITE_CORRUPT.
///
/// Threads: one.
class CTYDamagedStore {
  public:
    /// Records of one sender and one application that arrived together.
    struct Found {
        TYBatch batch;                  ///< empty if there is no record
        std::string application;        ///< of their playback
        std::int64_t last = 0;          ///< the id of the last record in the damaged store
        std::vector<TYOrigin> origins;  ///< of the records, see CTYOrigins::Of
    };

    /// Opens the file for reading, with its log if possible. A file that cannot be opened has no
    /// records.
    explicit CTYDamagedStore(const std::string& path);

    /// @return the connection; null if not even the schema can be read
    CTYDatabase* Database() { return m_pDatabase.get(); }

    /// @return the range that has all ids; 1 and 0 if it is unknown
    std::int64_t FirstId();
    std::int64_t LastId();

    /// Reads the first records of a range, at most kRecordsAtOnce and about kBytesAtOnce.
    /// @throws CTYDatabaseError  if one of them cannot be read
    Found Read(std::int64_t first, std::int64_t last);

    /// @return the number of records that the store had, by application or in total under '';
    ///         nothing if that cannot be read
    std::optional<std::map<std::string, std::int64_t>> Counted();

    static constexpr std::size_t kRecordsAtOnce = 256;
    static constexpr std::size_t kBytesAtOnce = std::size_t{1} << 20;

  private:
    std::optional<std::int64_t> NumberOf(const char* pSql);
    std::optional<std::map<std::string, std::int64_t>> CountedBy(const char* pSql);

    std::unique_ptr<CTYDatabase> m_pDatabase;
    std::unique_ptr<CTYOrigins> m_pOrigins;  ///< null without a connection
    std::string m_strSelect;
};

#endif  // TALLYRA_TYDAMAGEDSTORE_H
