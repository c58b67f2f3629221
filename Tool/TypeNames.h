// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_TYPENAMES_H
#define TALLYRA_TOOL_TYPENAMES_H

#include <optional>
#include <string>

// The names of a record's types, in lower case. A number without a name is its own name.

/// @return "none", "ethernet", "wifi" or "unknown"
std::string NetworkName(int type);
/// @param nameOrNumber  a name, in upper or lower case, or a number from -1 to 127
/// @return a TY_NETWORK_TYPE; nothing for any other text
std::optional<int> NetworkType(const std::string& nameOrNumber);

/// @return such as "native"; the names are those of TY_PLAYER_ID
std::string PlayerName(int player);
/// @return such as "widevine"; the names are those of TY_DRM_TYPE
std::string DrmName(int type);
/// @return such as "vod"; the names are those of TY_CONTENT_TYPE
std::string ContentName(int type);

#endif  // TALLYRA_TOOL_TYPENAMES_H
