// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_USAGEERRORS_H
#define TALLYRA_TOOL_USAGEERRORS_H

#include <ostream>
#include <string>
#include <vector>

namespace CLI {
class App;
class ParseError;
class Option;
}  // namespace CLI

/// Prints what is wrong with the arguments in one line, and in another where the help is.
/// @param app    what has parsed the arguments
/// @param error  what it threw
void PrintUsageError(const CLI::App& app, const CLI::ParseError& error, std::ostream& errors);

/// Makes "--flag=value" an error for all options that take no value.
void ForbidFlagValues(CLI::App& app);

/// @return the values of an option that takes only certain ones; empty if it takes others
std::vector<std::string> ValuesOf(CLI::Option& option);

/// @return "; did you mean 'X'?" with the nearest candidate; empty if none is near
std::string Suggestion(const std::string& word, const std::vector<std::string>& candidates);

/// @return the arguments with each "--option=" as two, the second of them empty: the parser would
///         take the argument behind it as its value
std::vector<std::string> SplitEmptyValues(const std::vector<std::string>& arguments);

/// @return the candidate that the word was probably meant to be; empty if none is near
std::string Nearest(const std::string& word, const std::vector<std::string>& candidates);

#endif  // TALLYRA_TOOL_USAGEERRORS_H
