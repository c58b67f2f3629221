// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SOAK_SAMPLES_H
#define TALLYRA_TESTS_SOAK_SAMPLES_H

#include <functional>
#include <string>
#include <vector>

/// What this process holds at one moment.
struct Sample {
    int second = 0;  ///< of the time that the library saw
    double residentKib = 0;
    double heapKib = 0;  ///< what was asked of the allocator and not given back
    double descriptors = 0;
    int deletions = 0;  ///< collectors that were deleted so far
    int playbacks = 0;  ///< begun so far

    /// Reads the memory and the descriptors of this process.
    /// @throws std::runtime_error  when they cannot be read
    static Sample Take();
};

/// How much of what the samples show is growth.
///
/// The first quarter does not count: buffers, stacks and the allocator's arenas fill. Through the
/// rest a straight line is laid by least squares; the growth is how far that rises from its first
/// sample to its last. A single peak hardly moves it, a steady leak moves it by all that leaks.
///
/// @param samples  at least eight
double Growth(const std::vector<Sample>& samples,
              const std::function<double(const Sample&)>& value);

/// Writes a table with a header line, columns parted by blanks.
/// @throws std::runtime_error  when it cannot be written
void WriteTable(const std::string& path, const std::vector<Sample>& samples);

#endif  // TALLYRA_TESTS_SOAK_SAMPLES_H
