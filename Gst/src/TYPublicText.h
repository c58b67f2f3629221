// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYPUBLICTEXT_H
#define TALLYRA_GST_TYPUBLICTEXT_H

#include <cstddef>
#include <string>
#include <string_view>

/// Longest text that is taken from a stream, in bytes. Only the URL of a record is longer.
inline constexpr std::size_t kLongestText = 4096;

/// Removes secrets from a URI.
///
/// A URI that is written wrongly is understood so that nothing of its password remains: an '@'
/// after a '/' ends user information if what stands before that '/' has a port that is no number.
/// If even that does not tell where the user information ends, all of it is left out.
/// @return the URI without user information, query and fragment; empty if nothing is left
std::string PublicUri(std::string_view uri);

/// @return the text with the public part of each URI in it, and cut as CutText does
std::string PublicText(std::string_view text);

/// @return the first kLongestText bytes, without a part of a UTF-8 character
std::string_view CutText(std::string_view text);

#endif  // TALLYRA_GST_TYPUBLICTEXT_H
