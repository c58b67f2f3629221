// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_EVENTNAMES_H
#define TALLYRA_TOOL_EVENTNAMES_H

#include <optional>
#include <ostream>
#include <string>
#include <vector>

// The names are those of the library, of the conventions, and of the site's file. The file is the
// one that UseSiteCodes was told, otherwise $TALLYRA_CODES, otherwise /etc/tallyra/codes.conf.
//
// Threads: one.

/// Reads the site's names from this file. Lines that cannot be used are reported, and ignored.
/// @throws std::runtime_error  if the file cannot be read
void UseSiteCodes(const std::string& path, std::ostream& errors);

/// @return the event's name, such as "BUFFERING_START"; for a code without a name, its number
std::string EventName(int code);

/// @param nameOrNumber  a name, in upper or lower case, or a number from 0 to 255
/// @return the code; nothing for any other text
std::optional<int> EventCode(const std::string& nameOrNumber);

/// @return all names
std::vector<std::string> EventNames();

/// @return what a code stands for: "remark" of the library on the order of the player's calls,
///         "error" for others from 200 on, "event" if it has a name, otherwise "free-form"
std::string EventKind(int code);

/// @return an SQL condition that is true for the codes of errors
std::string SqlForErrors(const std::string& column);

#endif  // TALLYRA_TOOL_EVENTNAMES_H
