// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-footprint": measures the size of the library, and the memory that it
// adds to a player. It does not link the library; each child loads it into a bare process.

#include "Child.h"
#include "Processor.h"
#include "Results.h"

#include <dlfcn.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

constexpr double kKb = 1000;
constexpr double kKib = 1024;

struct Settings {
    std::string json = "footprint.json";
    std::string library;
    double strippedBytes = 0;
    double relocations = 0;
    int runs = 5;
};

/// @return resident bytes of the mappings of a file, by the end of its path
double MappedBytes(const std::string& ending) {
    std::ifstream file("/proc/self/smaps");
    double sum = 0;
    bool matches = false;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string first;
        double value = 0;
        words >> first;
        if (first.back() != ':') {
            matches = line.find(ending) != std::string::npos;
        } else if (matches && first == "Rss:" && words >> value) {
            sum += value * kKib;
        }
    }
    return sum;
}

std::vector<double> Load(const std::string& library) {
    const double before = ResidentBytes();
    if (dlopen(library.c_str(), RTLD_NOW) == nullptr) {
        throw std::runtime_error(dlerror());
    }
    return {MappedBytes("/libtallyra.so") / kKib, (ResidentBytes() - before) / kKib};
}

void Measure(const Settings& settings) {
    CResults results;
    results.Add({"libtallyra.so, stripped", "", "KB"}, {settings.strippedBytes / kKb},
                Goal::AtMost(150));
    results.Add({"libtallyra.so, relocations", "", ""}, {settings.relocations});
    std::vector<double> own;
    std::vector<double> all;
    for (int run = 0; run < settings.runs; ++run) {
        const std::vector<double> result = CChild([&] { return Load(settings.library); }).Result();
        own.push_back(result.at(0));
        all.push_back(result.at(1));
    }
    results.Add({"resident memory, the library's own pages", "", "KiB"}, own);
    results.Add({"resident memory, with all that it links to", "", "KiB"}, all);
    results.Write(settings.json);
}

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    CLI::App app("Measures the size of the library in the file system and in memory.");
    app.add_option("--library", settings.library, "Path of libtallyra.so")->required();
    app.add_option("--stripped", settings.strippedBytes, "Its size without symbols")->required();
    app.add_option("--relocations", settings.relocations, "Their number")->required();
    app.add_option("--json", settings.json, "Write the results to this file");
    app.add_option("--runs", settings.runs)->check(CLI::Range(1, 1000));
    CLI11_PARSE(app, argc, argv);
    Measure(settings);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-bench-footprint: %s\n", error.what());
    return 2;
}
