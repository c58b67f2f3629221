// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_TIMETEXT_H
#define TALLYRA_TOOL_TIMETEXT_H

#include <cstdint>
#include <optional>
#include <string>

/// The zone in which times are printed, and in which times without an offset are read.
enum class Zone {
    UTC,
    LOCAL,  ///< that of the environment, TZ or /etc/localtime
};

/// Parses a time:
/// - every text that FormatTime returns
/// - a date, which stands for its first moment, or a date and a time: "2026-11-21",
///   "2026-11-21 07:30", "2026-11-21T07:30:15.250", the times also with "Z", "UTC" or an offset:
///   "+01:00"
/// - "now", "today", "yesterday"
/// - an age: "30s", "15m", "2h", "7d", "4w", also with a minus sign: "-2h"
/// - seconds since the epoch: "@1795234190"
/// A date or a time that does not exist, such as February 30th or a local time that a change to
/// summer time skips, is none of these. Of a local time that occurs twice, it takes the first.
/// @param now  nanoseconds since the epoch
/// @return nanoseconds since the epoch; nothing for any other text
std::optional<std::int64_t> ParseTime(const std::string& text, std::int64_t now, Zone zone);

/// @return whether a text has the form of a date or a time, even if there is no such time
bool HasFormOfDate(const std::string& text);

/// @return the time, such as "2026-11-21T07:30:15.250Z", or "2026-11-21T08:30:15.250+01:00" in
///         local time
std::string FormatTime(std::int64_t nanoseconds, Zone zone = Zone::UTC);

/// @return the duration, such as "1:02:03" or "2:03.500"
std::string FormatLength(std::int64_t milliseconds);

#endif  // TALLYRA_TOOL_TIMETEXT_H
