// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYTIMELINE_H
#define TALLYRA_TYTIMELINE_H

#include "tallyra/TYConventions.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// What a playback does at a time. The view `phases` of the store holds these numbers.
enum class TYPhaseKind : std::uint8_t {
    START_UP = 0,  ///< from START to the first frame
    PLAYING = 1,
    PAUSED = 2,
    SEEKING = 3,  ///< from SEEK until the picture is back, without STALLED phases
    STALLED = 4,  ///< buffering while the viewer waits for the picture
    UNKNOWN = 5,  ///< after a BUFFERING_START or SEEK whose end is missing
};

/// @return the name in commands, such as "start-up"
const char* NameOf(TYPhaseKind kind);

/// The part of a record that the analysis of a playback reads.
struct TYTimelineRecord {
    std::int64_t id;    ///< of the entry
    std::int64_t time;  ///< of the record, milliseconds since the epoch
    int event;          ///< code
    std::int32_t param1;
    std::int32_t param2;
};

/// The library records the play time whenever the position has advanced by this many milliseconds.
inline constexpr std::int32_t kHeartbeat = 180'000;

/// How many milliseconds a position may be ahead of the time without being a jump, as in the
/// library's own check.
inline constexpr std::int64_t kPositionTolerance = 9000;

/// @return whether a record shows that the position has advanced by three minutes. The play time
///         after PAUSE is always less.
inline bool IsHeartbeat(const TYTimelineRecord& record) {
    return record.event == TY_EVENT_PLAYING_TIME && record.param2 >= kHeartbeat;
}

/// @return whether the library records the position because the player has reported it: never
///         before the first frame nor during a pause
inline bool IsPosition(const TYTimelineRecord& record) {
    return record.event == TY_EVENT_PLAYBACK_TIME || record.event == TY_ERROR_PLAYBACK_TIME_JUMP ||
           IsHeartbeat(record);
}

/// A time during which a playback does one thing.
struct TYPhase {
    TYPhaseKind kind;
    TY_STALL_CAUSE cause;  ///< of STALLED; otherwise TY_STALL_NOT_TOLD
    std::int64_t begin;    ///< milliseconds since the first record
    std::int64_t length;   ///< milliseconds
    /// Id of the entry that opened it: the BUFFERING_START of STALLED and UNKNOWN, the SEEK of
    /// SEEKING; otherwise 0. Several phases with one opener belong to one stall or seek.
    std::int64_t opener;

    bool operator==(const TYPhase&) const = default;
};

/// A seek, from SEEK until the picture is back.
struct TYSeek {
    std::int64_t opener;  ///< id of the first SEEK
    std::int64_t length;  ///< milliseconds, including its STALLED phases
    bool complete;        ///< whether the picture came back
};

/// What a playback did, in order and without gaps. See TYTimeline.cpp.
struct TYTimeline {
    std::vector<TYPhase> phases;
    std::vector<TYSeek> seeks;
    /// Milliseconds from the first record to each record that counts: the first ones, up to STOP.
    std::vector<std::int64_t> offsets;
    bool hasStart = false;  ///< the records begin with START
    bool hasStop = false;
    /// The first frame was shown, or the START is missing. False without records.
    bool rendered = false;
    /// Milliseconds from START to RENDER_START; nothing if one is missing or the clock was set.
    std::optional<std::int64_t> startUp;
    /// Times between two records that count as 0, because the wall clock was set between them.
    std::int64_t clockSteps = 0;
};

/// Replays a playback.
/// @param records  all its records, in the order of ids
TYTimeline AnalyzePlayback(std::span<const TYTimelineRecord> records);

#endif  // TALLYRA_TYTIMELINE_H
