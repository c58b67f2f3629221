// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPLAYBACKSCAN_H
#define TALLYRA_TYPLAYBACKSCAN_H

#include "TYDatabase.h"
#include "TYPlaybackFigures.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

/// Nanoseconds without a record after which a playback without STOP counts as lost: players report
/// play time every three minutes.
constexpr std::int64_t kLostAfter = 600'000'000'000;

/// @param arrival  nanoseconds since the epoch
/// @return nanoseconds since then; 0 for an arrival in the future, from a clock that was wrong
std::int64_t AgeOf(std::int64_t arrival, std::int64_t now);

/// @return whether a playback without STOP still plays, by its last arrival
bool IsRecent(std::int64_t arrival, std::int64_t now);

/// A playback as the store describes it.
struct TYStoredPlayback {
    std::int64_t id = 0;  ///< of the row
    std::string playbackId;
    std::string application;
    std::string version;
    std::string title;
    std::string url;
    std::int64_t begin = 0;        ///< nanoseconds since the epoch: START, else the first arrival
    std::int64_t lastArrival = 0;  ///< nanoseconds since the epoch
    int player = 0;
    int network = 0;      ///< TY_NETWORK_TYPE of its first content description
    int contentType = 0;  ///< TY_CONTENT_TYPE
    int drm = 0;          ///< TY_DRM_TYPE
    std::int64_t duration = 0;
};

/// Selects playbacks. The defaults select all.
struct TYPlaybackSelection {
    std::int64_t since = std::numeric_limits<std::int64_t>::min();  ///< of `begin`, included
    std::int64_t until = std::numeric_limits<std::int64_t>::max();  ///< of `begin`, excluded
    std::string application;                                        ///< empty: any

    bool IsAll() const {
        return since == TYPlaybackSelection().since && until == TYPlaybackSelection().until &&
               application.empty();
    }
};

/// A playback with its analysis. Valid during the call that receives it.
struct TYAnalyzedPlayback {
    const TYStoredPlayback& playback;
    std::span<const TYTimelineRecord> records;
    const TYTimeline& timeline;
    const TYPlaybackFigures& figures;
};

/// Analyzes all selected playbacks in one pass over the entries, without records that belong to no
/// playback. Calls `visit` for each, in no fixed order. Keeps the records of a playback in memory
/// until its STOP, 32 bytes for each.
/// @param now  nanoseconds since the epoch
/// @throws CTYDatabaseError  if SQLite fails
void ScanPlaybacks(CTYDatabase& database, const TYPlaybackSelection& selection, std::int64_t now,
                   const std::function<void(const TYAnalyzedPlayback&)>& visit);

/// @param playback  id of the row
/// @return the records of a playback, in the order of ids
std::vector<TYTimelineRecord> ReadRecordsOf(CTYDatabase& database, std::int64_t playback);

#endif  // TALLYRA_TYPLAYBACKSCAN_H
