// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_TIMETEXT_H
#define TALLYRA_TOOL_TIMETEXT_H

#include <cstdint>
#include <optional>
#include <string>

/// Parses a time: "2026-11-21", "2026-11-21T07:30" or "2026-11-21T07:30:15" in local time, or in
/// UTC with a trailing "Z"; "@1795234190" in seconds since the epoch; or an age: "30s", "15m",
/// "2h", "7d".
/// @param now  nanoseconds since the epoch
/// @return nanoseconds since the epoch; nothing for any other text
std::optional<std::int64_t> ParseTime(const std::string& text, std::int64_t now);

/// @return the time in UTC, such as "2026-11-21T07:30:15.250Z"
std::string FormatTime(std::int64_t nanoseconds);

/// @return the duration, such as "1:02:03" or "2:03.500"
std::string FormatLength(std::int64_t milliseconds);

#endif  // TALLYRA_TOOL_TIMETEXT_H
