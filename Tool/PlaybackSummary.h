// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_PLAYBACKSUMMARY_H
#define TALLYRA_TOOL_PLAYBACKSUMMARY_H

#include "TYDatabase.h"
#include "TYPlaybackFigures.h"

#include <cstdint>
#include <optional>
#include <string>

/// What lists and heads say about a playback, from the analysis of its records.
struct PlaybackSummary {
    std::int64_t watched = 0;  ///< milliseconds of media, skipped parts left out
    std::optional<std::int64_t> startUp;
    std::int64_t stalls = 0;   ///< caused by the connection
    std::int64_t stalled = 0;  ///< milliseconds in these stalls
    std::string end;           ///< "stopped", "playing", "exited", "failed" or "lost"
    std::string endClass;      ///< the class that docs/kpi.md defines, such as "start_failure"
    std::string reason;        ///< of the STOP, such as "end_of_content"; empty if it is not told
    std::string ending;        ///< both in words
    bool completed = false;    ///< counts as completed for the key figures
};

/// Reads the records of one playback.
/// @param playback  id of the row
/// @param facts     what its records do not tell
PlaybackSummary Summarize(CTYDatabase& database, std::int64_t playback,
                          const TYPlaybackFacts& facts);

#endif  // TALLYRA_TOOL_PLAYBACKSUMMARY_H
