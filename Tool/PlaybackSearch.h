// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_PLAYBACKSEARCH_H
#define TALLYRA_TOOL_PLAYBACKSEARCH_H

#include "Commands.h"

#include <string>
#include <vector>

/// @return the identifiers of playbacks that begin with a text, at most eleven; only the text
///         itself if it is an identifier
std::vector<std::string> FindPlaybacks(CTYDatabase& database, const std::string& begin);

/// Says that none or several were found.
/// @return the exit code
int ReportSearch(const Context& context, const std::string& begin,
                 const std::vector<std::string>& found);

#endif  // TALLYRA_TOOL_PLAYBACKSEARCH_H
