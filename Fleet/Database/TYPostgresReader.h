// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPOSTGRESREADER_H
#define TALLYRA_TYPOSTGRESREADER_H

#include "TYPlaybackScan.h"
#include "TYPostgresConnection.h"

#include <cstdint>
#include <functional>
#include <string>

/// Reads the playbacks of a fleet. Never reads the table entries.
///
/// Threads: one.
class CTYPostgresReader {
  public:
    /// What a visitor needs.
    enum class Detail {
        FIGURES,    ///< no records, and an empty timeline
        TIMELINES,  ///< also the records and the timeline
    };

    /// @param url  postgresql://...; the password is best in PGPASSFILE
    explicit CTYPostgresReader(const std::string& url) : m_Connection(url, "tallyra") {}

    /// Calls `visit` for each selected playback, as the function ScanPlaybacks does for a store.
    /// Keeps some hundred playbacks in memory.
    /// @param now  nanoseconds since the epoch: decides whether a playback without STOP still plays
    /// @throws CTYDatabaseUnavailable  if the server cannot be reached
    /// @throws std::runtime_error      if the database is not that of a collector of this version
    void ScanPlaybacks(const TYPlaybackSelection& selection, std::int64_t now, Detail detail,
                       const std::function<void(const TYAnalyzedPlayback&)>& visit);

  private:
    CTYPostgresConnection m_Connection;
};

#endif  // TALLYRA_TYPOSTGRESREADER_H
