// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-footprint": measures the size of the library, and the memory that it
// adds to a player. It does not link the library; each child loads it into a bare process.

#include "Benchmark.h"
#include "Child.h"
#include "Proc.h"

#include <dlfcn.h>

namespace {

/// @return resident KiB of the mappings of files whose path contains the name
double MappedKib(const std::string& name) {
    std::ifstream file("/proc/self/smaps");
    double sum = 0;
    bool matches = false;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string first;
        double value = 0;
        words >> first;
        if (first.back() != ':') {
            matches = line.find(name) != std::string::npos;
        } else if (matches && first == "Rss:" && words >> value) {
            sum += value;
        }
    }
    return sum;
}

std::vector<double> Load(const std::string& library) {
    const long before = ReadProcKib(getpid(), "VmRSS");
    if (dlopen(library.c_str(), RTLD_NOW) == nullptr) {
        throw std::runtime_error(dlerror());
    }
    return {MappedKib("/libtallyra.so"),
            static_cast<double>(ReadProcKib(getpid(), "VmRSS") - before)};
}

// Settings: "library", its path; "stripped", its bytes without symbols; and "relocations", their
// number.
void Measure(const Options& options, CResults& results) {
    constexpr double kBytesPerKb = 1000;
    const auto& settings = options.settings;
    results.Add({"libtallyra.so, stripped", "", "KB"},
                {std::stod(settings.at("stripped")) / kBytesPerKb}, Goal::AtMost(150));
    results.Add({"libtallyra.so, relocations", "", ""}, {std::stod(settings.at("relocations"))});
    std::vector<double> own;
    std::vector<double> all;
    for (int run = 0; run < options.runs; ++run) {
        const auto result = CChild([&] { return Load(settings.at("library")); }).Result();
        own.push_back(result.at(0));
        all.push_back(result.at(1));
    }
    results.Add({"resident memory, the library's own pages", "", "KiB"}, own);
    results.Add({"resident memory, with all that it links to", "", "KiB"}, all);
}

}  // namespace

int main(int argc, char** argv) {
    return RunBenchmark(argc, argv, {{"footprint", &Measure}});
}
