// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_CELLTEXT_H
#define TALLYRA_TOOL_CELLTEXT_H

#include "Rows.h"

#include <string>

/// @return the text of a cell in a table or in CSV. Texts of players are as they were sent.
std::string CellText(const Cell& cell, const RowStyle& style);

#endif  // TALLYRA_TOOL_CELLTEXT_H
