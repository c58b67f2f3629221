// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Statistics.h"

#include <algorithm>
#include <cmath>

namespace {

// The quantile of the normal distribution that leaves 2.5 % on each side.
constexpr double kQuantile = 1.959963984540054;
constexpr std::size_t kWhole = 100;

}  // namespace

std::optional<std::int64_t> NearestRank(std::span<const std::int64_t> sorted, int percent) {
    if (sorted.empty()) {
        return std::nullopt;
    }
    const std::size_t rank =
        (sorted.size() * static_cast<std::size_t>(percent) + kWhole - 1) / kWhole;
    return sorted[std::max<std::size_t>(rank, 1) - 1];
}

TYPercentiles PercentilesOf(std::vector<std::int64_t> values) {
    std::ranges::sort(values);
    return {static_cast<std::int64_t>(values.size()), NearestRank(values, 50),
            NearestRank(values, 95), NearestRank(values, 99)};
}

std::optional<double> TYShare::Rate() const {
    if (of == 0) {
        return std::nullopt;
    }
    return static_cast<double>(count) / static_cast<double>(of);
}

// Rates near 0 and small sets are usual here. The normal approximation then gives bounds below 0
// or an interval of no width; Wilson's does not.
std::optional<TYInterval> TYShare::Interval() const {
    const auto rate = Rate();
    if (!rate) {
        return std::nullopt;
    }
    const auto n = static_cast<double>(of);
    const double square = kQuantile * kQuantile;
    const double middle = (*rate + square / (2 * n)) / (1 + square / n);
    const double half =
        kQuantile * std::sqrt(*rate * (1 - *rate) / n + square / (4 * n * n)) / (1 + square / n);
    // Rounding must not move the bounds of none and all off 0 and 1.
    return TYInterval{count == 0 ? 0 : middle - half, count == of ? 1 : middle + half};
}
