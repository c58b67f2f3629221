// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_REPORTJSON_H
#define TALLYRA_TOOL_REPORTJSON_H

#include "KeyFigures.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/// The data of a report, in the order in which it was added. Tool/report/*.js read it.
using ReportJson = nlohmann::ordered_json;

/// @return the text of a player, harmless and of bounded length
std::string ReportText(std::string_view text);

/// @return {"n", "of", "rate", "low", "high"}, the last two at 95 %
ReportJson JsonOf(const TYShare& share);

/// @return the figures that tiles, trends and groups show
ReportJson JsonOf(const TYKeyFigures& figures);

/// Counts times in classes whose bounds grow by the factor 10^(1/10), because most times are short
/// and a few are very long.
/// @return an array of {"from", "to", "n"}, milliseconds, without empty classes at either end
ReportJson HistogramOf(std::span<const std::int64_t> times);

/// Writes JSON so that it can stand in a script element: without any character that HTML or
/// JavaScript could take for its own, and in ASCII.
std::string ForScriptElement(const ReportJson& json);

#endif  // TALLYRA_TOOL_REPORTJSON_H
