// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_STATISTICS_H
#define TALLYRA_TOOL_STATISTICS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// Percentiles of a set of times, by nearest rank: each is a value of the set. Empty if the set is.
struct TYPercentiles {
    std::int64_t n = 0;  ///< size of the set
    std::optional<std::int64_t> p50;
    std::optional<std::int64_t> p95;
    std::optional<std::int64_t> p99;

    bool operator==(const TYPercentiles&) const = default;
};

/// @param percent  1 to 100
/// @return the smallest value that at least `percent` percent of the values do not exceed; nothing
///         for an empty set
std::optional<std::int64_t> NearestRank(std::span<const std::int64_t> sorted, int percent);

TYPercentiles PercentilesOf(std::vector<std::int64_t> values);

/// The bounds of an interval.
struct TYInterval {
    double low;
    double high;
};

/// A number of playbacks out of those to which the question applies.
struct TYShare {
    std::int64_t count = 0;
    std::int64_t of = 0;

    /// @return 0 to 1; nothing out of none
    std::optional<double> Rate() const;
    /// @return the Wilson score interval of the rate at 95 %; nothing out of none
    std::optional<TYInterval> Interval() const;

    bool operator==(const TYShare&) const = default;
};

#endif  // TALLYRA_TOOL_STATISTICS_H
