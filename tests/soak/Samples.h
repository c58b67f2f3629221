// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SOAK_SAMPLES_H
#define TALLYRA_TESTS_SOAK_SAMPLES_H

#include "Proc.h"

#include <malloc.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

/// The resources of this process at one moment.
struct Sample {
    int second = 0;  ///< of the library's time
    double residentKib = 0;
    double heapKib = 0;  ///< allocated from the heap and not freed
    double descriptors = 0;
    int deletions = 0;  ///< collectors deleted so far
    int playbacks = 0;  ///< playbacks begun so far

    /// Reads memory and descriptors.
    /// @throws std::runtime_error  when they cannot be read
    static Sample Take() {
        Sample sample;
        sample.residentKib = static_cast<double>(ReadProcKib(getpid(), "VmRSS"));
        const struct mallinfo2 heap = mallinfo2();
        sample.heapKib = static_cast<double>(heap.uordblks + heap.hblkhd) / 1024;
        const std::filesystem::directory_iterator descriptors("/proc/self/fd");
        // One of them reads the folder.
        sample.descriptors =
            static_cast<double>(std::distance(begin(descriptors), end(descriptors)) - 1);
        return sample;
    }
};

/// Computes how much a value grows over the samples: fits a straight line by least squares and
/// returns its rise from the first sample to the last. The first quarter is left out, in which
/// buffers, stacks and the allocator's arenas fill. A single peak hardly changes the result; a
/// steady leak is counted in full.
///
/// @throws std::runtime_error  for fewer than 8 samples
template <class Number>
double Growth(const std::vector<Sample>& samples, Number Sample::*value) {
    if (samples.size() < 8) {
        throw std::runtime_error("too few samples to judge by");
    }
    const std::span<const Sample> late = std::span(samples).subspan(samples.size() / 4);
    const auto count = static_cast<double>(late.size());
    double meanX = 0;
    double meanY = 0;
    for (const Sample& sample : late) {
        meanX += sample.second / count;
        meanY += sample.*value / count;
    }
    double covariance = 0;
    double variance = 0;
    for (const Sample& sample : late) {
        covariance += (sample.second - meanX) * (sample.*value - meanY);
        variance += (sample.second - meanX) * (sample.second - meanX);
    }
    return covariance / variance * (late.back().second - late.front().second);
}

/// Writes a table: a header line, then columns separated by blanks.
/// @throws std::runtime_error  when it cannot be written
inline void WriteTable(const std::string& path, const std::vector<Sample>& samples) {
    std::ofstream file(path);
    file << "second resident_kib heap_kib descriptors deletions playbacks\n";
    for (const Sample& sample : samples) {
        file << sample.second << ' ' << sample.residentKib << ' ' << sample.heapKib << ' '
             << sample.descriptors << ' ' << sample.deletions << ' ' << sample.playbacks << '\n';
    }
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}

#endif  // TALLYRA_TESTS_SOAK_SAMPLES_H
