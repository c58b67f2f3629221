// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_STOREACCESS_H
#define TALLYRA_TOOL_STOREACCESS_H

#include <optional>
#include <string>

/// @return why this user cannot read a store, and what to do about it: there is none, it is empty
///         or no file, or the permissions of a file or folder forbid it; nothing if none is so
std::optional<std::string> ObstacleToReading(const std::string& db);

/// @param db  a store that this user can read
/// @return why this user cannot change it, and who can; nothing if the permissions allow it
std::optional<std::string> ObstacleToWriting(const std::string& db);

#endif  // TALLYRA_TOOL_STOREACCESS_H
