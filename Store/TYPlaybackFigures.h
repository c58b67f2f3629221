// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPLAYBACKFIGURES_H
#define TALLYRA_TYPLAYBACKFIGURES_H

#include "TYTimeline.h"

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// How a playback ended.
enum class TYPlaybackEnd {
    PLAYING,            ///< no STOP yet, and records arrived lately
    LOST,               ///< no STOP, and no record for a long time: it may have ended in any way
    STOPPED,            ///< after the first frame, without a fatal error
    EXIT_BEFORE_START,  ///< before the first frame, without a fatal error
    START_FAILURE,      ///< before the first frame, with a fatal error
    PLAYBACK_FAILURE,   ///< after the first frame, with a fatal error
    COUNT,
};

/// @return whether a fatal error ended the playback
constexpr bool HasFailed(TYPlaybackEnd end) {
    return end == TYPlaybackEnd::START_FAILURE || end == TYPlaybackEnd::PLAYBACK_FAILURE;
}

/// @return the name in commands, such as "exit before start"
const char* NameOf(TYPlaybackEnd end);

/// The key figures of one playback. docs/kpi.md defines each. Times are milliseconds.
struct TYPlaybackFigures {
    TYPlaybackEnd end = TYPlaybackEnd::LOST;
    TY_STOP_REASON reason = TY_STOP_NOT_TOLD;
    bool started = false;                 ///< the first frame was shown
    std::optional<std::int64_t> startUp;  ///< nothing if START or RENDER_START is missing
    std::vector<std::int64_t> stalls;     ///< lengths of those caused by the connection
    /// How many of the last ones have the length 0 because no record tells it.
    std::int64_t unmeasuredStalls = 0;
    std::vector<std::int64_t> seekStalls;
    std::vector<std::int64_t> switchStalls;
    std::vector<std::int64_t> seeks;  ///< lengths, including stalls; only complete ones
    std::int64_t playing = 0;
    std::int64_t paused = 0;
    std::int64_t watchedMedia = 0;  ///< sum of the position segments, repetitions included
    std::optional<std::int64_t> lastPosition;
    std::optional<bool> completed;            ///< nothing if it cannot be known
    std::optional<std::int64_t> averageKbps;  ///< weighted by playing time
    std::int64_t renditionTime = 0;           ///< playing time with a known bit rate
    std::optional<std::int64_t> switches;     ///< nothing without renditions
    std::optional<std::int64_t> framesDropped;
    std::optional<std::int64_t> framesRendered;
    std::optional<std::int64_t> signal;  ///< Wi-Fi signal in dBm when buffering first began
    std::int64_t errors = 0;             ///< records of errors
    std::int64_t clockSteps = 0;
};

/// @return the lengths of the connection stalls whose length is known
std::span<const std::int64_t> MeasuredStalls(const TYPlaybackFigures& figures);

/// @return whether a STOP tells how the playback ended
bool HasEnded(const TYPlaybackFigures& figures);

/// @return whether the playback counts as completed; nothing if it did not start or end, or if its
///         records do not tell
std::optional<bool> CompletionOf(const TYPlaybackFigures& figures);

/// What the records of a playback do not tell.
struct TYPlaybackFacts {
    std::int64_t duration = 0;  ///< of the content in milliseconds; 0 if unknown
    bool onWifi = false;        ///< BUFFERING_START carries the signal strength
    bool isLive = false;        ///< records arrived lately
    bool hasEnd = true;         ///< the content is no live channel
};

TYPlaybackFigures FiguresOf(std::span<const TYTimelineRecord> records, const TYTimeline& timeline,
                            const TYPlaybackFacts& facts);

#endif  // TALLYRA_TYPLAYBACKFIGURES_H
