// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCOVERAGE_H
#define TALLYRA_TYCOVERAGE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

/// The ids of a store whose entries the database has, or will never get: a set of ranges.
///
/// Threads: one.
class CTYCoverage {
  public:
    /// A device that sends in order has a few. More would make each of its batches slow.
    static constexpr std::size_t kMostRanges = 1000;

    CTYCoverage() = default;
    /// @param text  an int8multirange as PostgreSQL prints it, such as "{[1,25),[30,55)}"
    /// @throws std::runtime_error  for any other text
    explicit CTYCoverage(std::string_view text);

    /// Adds the ids from `first` to `last`; none if `last` is smaller. Neighbours become one range.
    /// @param last  less than INT64_MAX
    void Add(std::int64_t first, std::int64_t last);

    /// Adds the ids of another one.
    void Add(const CTYCoverage& other);

    bool Has(std::int64_t id) const;

    /// @return the id before the first gap; 0 if id 1 is not covered
    std::int64_t Watermark() const;

    /// @return whether a source that covers `before` may cover this: it has at most kMostRanges
    ///         ranges, or no more than before
    bool MayFollow(const CTYCoverage& before) const;

    /// @return as the constructor takes it
    std::string Text() const;

  private:
    std::map<std::int64_t, std::int64_t> m_Ranges;  ///< from the first id to the one after the last
};

#endif  // TALLYRA_TYCOVERAGE_H
