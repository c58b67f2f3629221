// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_FIGUREJSON_H
#define TALLYRA_TOOL_FIGUREJSON_H

#include "Statistics.h"

#include <nlohmann/json.hpp>

#include <optional>

/// @return the value; null if there is none
template <class Value>
nlohmann::ordered_json JsonOf(const std::optional<Value>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json();
}

/// @return an object with n, p50, p95 and p99
inline nlohmann::ordered_json JsonOf(const TYPercentiles& times) {
    return {{"n", times.n},
            {"p50", JsonOf(times.p50)},
            {"p95", JsonOf(times.p95)},
            {"p99", JsonOf(times.p99)}};
}

#endif  // TALLYRA_TOOL_FIGUREJSON_H
