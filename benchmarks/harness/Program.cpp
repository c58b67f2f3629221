// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Program.h"

#include <CLI/CLI.hpp>

#include <cstdio>

int RunBenchmark(int argc, char** argv, const std::map<std::string, Benchmark>& benchmarks) try {
    Options options;
    std::string name;
    std::string json;
    CLI::App app("Measures what the library costs its player.");
    app.add_option("name", name, "The benchmark")->required();
    app.add_option("--json", json, "Write the results to this file")->required();
    app.add_option("--runs", options.runs, "Repeat the measurement N times")
        ->check(CLI::Range(1, 1000));
    app.add_option("--amount", options.amount, "Work of each run")
        ->required()
        ->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);
    CResults results;
    benchmarks.at(name)(options, results);
    results.Write(json);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 2;
}
