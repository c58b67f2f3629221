// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_TEXTSEARCH_H
#define TALLYRA_TOOL_TEXTSEARCH_H

#include "TYDatabase.h"

/// Adds the SQL function contains_text(text, part): whether a text contains another one, both
/// compared without case, in every script. SQLite's LIKE knows only the letters of ASCII.
/// Call this once for a connection, before it has statements.
void AddTextSearch(CTYDatabase& database);

#endif  // TALLYRA_TOOL_TEXTSEARCH_H
