// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_TIMETEXT_H
#define TALLYRA_TOOL_TIMETEXT_H

#include <cstdint>
#include <optional>
#include <string>

/// Reads a time: "2026-11-21", "2026-11-21T07:30", "2026-11-21T07:30:15" (local time, or UTC with
/// a "Z" behind it), "@1795234190" (seconds since the epoch), or how long ago: "30s", "15m", "2h",
/// "7d".
/// @param now  nanoseconds since the epoch
/// @return nanoseconds since the epoch; nothing when the text is none of these
std::optional<std::int64_t> ParseTime(const std::string& text, std::int64_t now);

/// @return UTC, as in "2026-11-21T07:30:15.250Z"
std::string FormatTime(std::int64_t nanoseconds);

/// @return a length of time, as in "1:02:03" or "2:03.500"
std::string FormatLength(std::int64_t milliseconds);

#endif  // TALLYRA_TOOL_TIMETEXT_H
