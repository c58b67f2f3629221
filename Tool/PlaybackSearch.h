// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_PLAYBACKSEARCH_H
#define TALLYRA_TOOL_PLAYBACKSEARCH_H

#include "Commands.h"

#include <string>
#include <vector>

/// @return the identifiers of playbacks that begin with a text, at most eleven; only the text
///         itself if it is an identifier; none for an empty text that is none
std::vector<std::string> FindPlaybacks(CTYDatabase& database, const std::string& begin);

/// Completes the filter's playback if exactly one begins like this.
/// @return the exit code if several do; nothing otherwise
std::optional<int> CompletePlayback(const Context& context, CTYDatabase& database, Filter& filter);

/// Says that none or several were found.
/// @return the exit code
int ReportSearch(const Context& context, const std::string& begin,
                 const std::vector<std::string>& found);

#endif  // TALLYRA_TOOL_PLAYBACKSEARCH_H
