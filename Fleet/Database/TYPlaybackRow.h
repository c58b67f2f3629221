// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPLAYBACKROW_H
#define TALLYRA_TYPLAYBACKROW_H

#include "TYPlaybackFigures.h"
#include "TYPlaybackLog.h"
#include "TYPlaybackScan.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <pqxx/pqxx>
#include <string>
#include <vector>

/// A record that is new to the database.
struct TYNewRecord {
    TYRecordKey key;
    std::int64_t arrival = 0;  ///< at the device's service: nanoseconds since the epoch
    const TYMediaData* pRecord = nullptr;
    const std::optional<std::string>* pUrl = nullptr;
};

/// A row of the table playbacks. See TYPlaybackRow.cpp.
///
/// Threads: one.
class CTYPlaybackRow {
  public:
    static constexpr std::size_t kColumns = 43;
    using Columns = std::array<const char*, kColumns>;
    /// The names, in the order of Columns.
    static const Columns kNames;

    CTYPlaybackRow(int device, std::string playbackId);
    /// @param row  with the columns of kNames, in their order
    explicit CTYPlaybackRow(const pqxx::row& row);

    int Device() const { return m_nDevice; }
    const std::string& PlaybackId() const { return m_Playback.playbackId; }

    /// Adds a record of the playback that was not added before.
    void Add(const TYNewRecord& record);

    /// Computes the figures.
    /// @param texts  receives what the columns point to
    Columns Compute(std::vector<std::string>& texts) const;

    /// @return the figures as the row has them. A playback without STOP is LOST.
    static TYPlaybackFigures FiguresIn(const pqxx::row& row);
    /// @return what the row describes
    static TYStoredPlayback PlaybackIn(const pqxx::row& row);
    static CTYPlaybackLog LogIn(const pqxx::row& row);
    /// @return what the figures depend on besides the records
    static TYPlaybackFacts FactsOf(const TYStoredPlayback& playback);

  private:
    void TakeContent(const TYNewRecord& record);

    int m_nDevice;
    TYStoredPlayback m_Playback;
    bool m_bHasUrl = false;
    std::int64_t m_nFirstArrival = 0;
    std::int64_t m_nRecords = 0;  ///< all, also those that the log leaves out
    CTYPlaybackLog m_Log;
};

#endif  // TALLYRA_TYPLAYBACKROW_H
