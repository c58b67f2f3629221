// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_EVENTNAMES_H
#define TALLYRA_TOOL_EVENTNAMES_H

#include <optional>
#include <string>

/// @return the event's name, such as "BUFFERING_START"; for a code without a name, its number
std::string EventName(int code);

/// @param nameOrNumber  a name, in upper or lower case, or a number from 0 to 255
/// @return the code; nothing for any other text
std::optional<int> EventCode(const std::string& nameOrNumber);

#endif  // TALLYRA_TOOL_EVENTNAMES_H
