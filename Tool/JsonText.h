// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_JSONTEXT_H
#define TALLYRA_TOOL_JSONTEXT_H

#include <nlohmann/json_fwd.hpp>

#include <string>

/// @return the value as JSON on one line, in valid UTF-8 and without control characters, so that a
///         terminal may show texts of players. Defined with the writers of rows.
std::string JsonText(const nlohmann::ordered_json& json);

#endif  // TALLYRA_TOOL_JSONTEXT_H
