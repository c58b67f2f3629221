// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SOAK_SAMPLES_H
#define TALLYRA_TESTS_SOAK_SAMPLES_H

#include "Proc.h"
#include "Test.h"

#include <malloc.h>

/// The resources of this process at one moment.
struct Sample {
    int second = 0;  ///< of the library's time
    double residentKib = 0;
    double heapKib = 0;  ///< allocated from the heap and not freed
    double descriptors = 0;
    double deletions = 0;  ///< collectors deleted so far
    double playbacks = 0;  ///< playbacks begun so far

    /// Reads memory and descriptors.
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
inline double Growth(const std::vector<Sample>& samples, double Sample::*value) {
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

/// Writes a table to the file that script/soak names: a header line, then columns separated by
/// blanks.
inline void WriteTable(const std::vector<Sample>& samples) {
    const char* pPath = std::getenv("TALLYRA_SOAK_SAMPLES");
    std::ofstream file(pPath != nullptr ? pPath : "/dev/null");
    file << "second resident_kib heap_kib descriptors deletions playbacks\n";
    for (const Sample& sample : samples) {
        file << sample.second << ' ' << sample.residentKib << ' ' << sample.heapKib << ' '
             << sample.descriptors << ' ' << sample.deletions << ' ' << sample.playbacks << '\n';
    }
    EXPECT_TRUE(file.flush()) << pPath;
}

#endif  // TALLYRA_TESTS_SOAK_SAMPLES_H
