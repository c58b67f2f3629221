// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_PRINTEDTEXT_H
#define TALLYRA_TOOL_PRINTEDTEXT_H

#include <cstddef>
#include <string>
#include <string_view>

/// @param text  valid UTF-8
/// @return whether it has no control character, and no invisible one that can reorder a line
bool IsHarmless(const std::string& text);

/// @return the text as valid UTF-8, with "?" for each control or invisible format character
std::string Printable(std::string_view text);

/// @param text  valid UTF-8
/// @return how many columns of a terminal it takes
std::size_t WidthOf(const std::string& text);

/// @param text  valid UTF-8
/// @return the text, cut to `width` columns, the last of which is then "…". It is also cut if it
///         hides too many characters without a width in them.
std::string Shortened(const std::string& text, std::size_t width);

#endif  // TALLYRA_TOOL_PRINTEDTEXT_H
