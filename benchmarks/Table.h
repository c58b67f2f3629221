// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_TABLE_H
#define TALLYRA_BENCHMARKS_TABLE_H

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

/// What several measurements of the same come to.
struct Summary {
    double median = 0;
    double least = 0;
    double most = 0;

    /// @param values  at least one
    static Summary Of(std::vector<double> values);
    nlohmann::json ToJson() const;
};

/// Writes a file for programs.
/// @throws std::runtime_error  when it cannot be written
void WriteJson(const std::string& path, const nlohmann::json& json);

#endif  // TALLYRA_BENCHMARKS_TABLE_H
