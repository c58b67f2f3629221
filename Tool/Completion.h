// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_COMPLETION_H
#define TALLYRA_TOOL_COMPLETION_H

#include "Options.h"

#include <string>
#include <vector>

/// @return whether the arguments ask for completions: "complete", then "words", "applications",
///         "playbacks" or "events"
bool IsCompletion(const std::vector<std::string>& arguments);

/// Prints what a shell offers, one line each. Behind a tab, a line may have a description.
/// - complete words WORD...: what may stand in the place of the last word, behind the others. The
///   line ":files" stands for the names of files.
/// - complete applications, playbacks or events: all events, the first 1000 applications, the
///   newest 100 playbacks
/// Without a readable store, there are no applications and playbacks.
/// @param line  with all commands
void Complete(CCommandLine& line, const std::vector<std::string>& arguments);

#endif  // TALLYRA_TOOL_COMPLETION_H
