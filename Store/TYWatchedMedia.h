// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYWATCHEDMEDIA_H
#define TALLYRA_TYWATCHEDMEDIA_H

#include "TYTimeline.h"

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// A part of the content that was played without a jump. Positions in milliseconds.
struct TYSegment {
    std::int64_t begin;
    std::int64_t end;

    bool operator==(const TYSegment&) const = default;
};

/// @param offsets  the offsets of the playback's timeline
/// @return the segments that the positions in the records show, in the order of playing
std::vector<TYSegment> WatchedSegments(std::span<const TYTimelineRecord> records,
                                       std::span<const std::int64_t> offsets);

/// @return the length of all segments
std::int64_t LengthOf(std::span<const TYSegment> segments);

#endif  // TALLYRA_TYWATCHEDMEDIA_H
