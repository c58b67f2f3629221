// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_EVENTNAMES_H
#define TALLYRA_TOOL_EVENTNAMES_H

#include <optional>
#include <string>

/// @return the event's name, as in "BUFFERING_START"; the code itself where it has none
std::string EventName(int code);

/// @return the code of a name or of a number from 0 to 255
std::optional<int> EventCode(const std::string& nameOrNumber);

/// @return "none", "ethernet", "wifi" or "unknown"
std::string NetworkName(int type);

#endif  // TALLYRA_TOOL_EVENTNAMES_H
