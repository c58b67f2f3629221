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

/// @return "none", "ethernet", "wifi" or "unknown"
std::string NetworkName(int type);

/// @return the name of a TY_PLAYER_ID, such as "adaptive"; for a value without a name, its number
std::string PlayerName(int player);

/// @return the name of a TY_CONTENT_TYPE, such as "vod"; for a value without a name, its number
std::string ContentName(int type);

/// @return the name of a TY_DRM_TYPE, such as "widevine"; for a value without a name, its number
std::string DrmName(int type);

#endif  // TALLYRA_TOOL_EVENTNAMES_H
