// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYSTALLWATCH_H
#define TALLYRA_GST_TYSTALLWATCH_H

#include "TYDelayLine.h"
#include "TYGstEvent.h"

#include <cstdint>
#include <optional>

/// Finds in the positions when the picture stopped and when it moved again. Some demuxers and
/// applications do not announce that: the position is all there is to see.
///
/// Threads: one.
class CTYStallWatch {
  public:
    /// @param line    what follows `sample`
    /// @param time    of `sample`
    /// @param sample  the position now, while the picture moves
    /// @param rate    of the playback
    /// @return when the picture stops, if that is before the next look
    static std::optional<std::int64_t> FindStop(const CTYDelayLine& line, std::int64_t time,
                                                const TYSample& sample, double rate);

    /// As FindStop, while the picture stands.
    /// @return when the picture moves again, if that is before the next look
    static std::optional<std::int64_t> FindMove(const CTYDelayLine& line, std::int64_t time,
                                                const TYSample& sample, double rate);
};

#endif  // TALLYRA_GST_TYSTALLWATCH_H
