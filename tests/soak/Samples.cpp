// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Samples.h"

#include <malloc.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

Sample Sample::Take() {
    Sample sample;
    long pages = 0;
    std::ifstream file("/proc/self/statm");
    if (!(file >> pages >> pages)) {
        throw std::runtime_error("cannot read /proc/self/statm");
    }
    file.close();
    sample.residentKib = static_cast<double>(pages * sysconf(_SC_PAGESIZE)) / 1024;
    const struct mallinfo2 heap = mallinfo2();
    sample.heapKib = static_cast<double>(heap.uordblks + heap.hblkhd) / 1024;
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    // One of them reads the folder.
    sample.descriptors =
        static_cast<double>(std::distance(begin(descriptors), end(descriptors)) - 1);
    return sample;
}

double Growth(const std::vector<Sample>& samples,
              const std::function<double(const Sample&)>& value) {
    if (samples.size() < 8) {
        throw std::runtime_error("too few samples to judge by");
    }
    const auto first = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 4);
    const auto count = static_cast<double>(std::distance(first, samples.end()));
    double meanX = 0;
    double meanY = 0;
    for (auto it = first; it != samples.end(); ++it) {
        meanX += it->second / count;
        meanY += value(*it) / count;
    }
    double covariance = 0;
    double variance = 0;
    for (auto it = first; it != samples.end(); ++it) {
        covariance += (it->second - meanX) * (value(*it) - meanY);
        variance += (it->second - meanX) * (it->second - meanX);
    }
    return covariance / variance * (samples.back().second - first->second);
}

void WriteTable(const std::string& path, const std::vector<Sample>& samples) {
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
