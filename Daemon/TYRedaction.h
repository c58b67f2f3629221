// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYREDACTION_H
#define TALLYRA_TYREDACTION_H

#include "TYMediaData.h"

#include <string>
#include <string_view>

/// Replaces what a URL may carry about a person by "*": user information, the values of query
/// parameters, and the values of parameters in the fragment. Names and separators stay. The result
/// is never longer than the URL, and redacting it again changes nothing.
///
/// Threads: any.
std::string RedactedUrl(std::string_view url);

/// Redacts all URLs in the texts of a record. A text that becomes shorter is filled up with NULs,
/// so that each field keeps its place. Bytes behind the end of a text are redacted as well, because
/// the store keeps them.
///
/// Threads: any; the record must not be used by two threads at once.
void RedactTexts(TYMediaData& record);

#endif  // TALLYRA_TYREDACTION_H
