// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_BENCHMARK_H
#define TALLYRA_BENCHMARKS_HARNESS_BENCHMARK_H

#include <array>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

/// Named measurements with one value for each run.
using Series = std::map<std::string, std::vector<double>>;

inline constexpr std::array kPercentiles = {"median", "p99", "p99.9"};

/// Adds the median, "p99" and "p99.9" of a run's samples to a series, each under its name.
/// @param samples  at least one
void AddPercentiles(std::vector<double> samples, Series& series);

/// @return `numbers[i] / others[i]` for each run
std::vector<double> Ratios(const std::vector<double>& numbers, const std::vector<double>& others);

/// The limit of a measurement; none if the sign is empty.
struct Goal {
    std::string sign;
    double value = 0;

    static Goal AtMost(double value) { return {"<=", value}; }
    static Goal AtLeast(double value) { return {">=", value}; }
};

/// What a row of the table measures, and what it is compared with.
struct Subject {
    std::string what;
    std::string against;
    std::string unit;
};

/// Prints rows, and appends them to the tables and plots of a folder: goals.txt, parts.txt and one
/// file for each plot. The tables show the median of the runs, the least and the most.
///
/// Threads: one.
class CResults {
  public:
    explicit CResults(std::filesystem::path folder) : m_Folder(std::move(folder)) {}

    /// Adds a row to the table of goals.
    /// @param runs  one value for each run; their median is compared with the goal
    void Add(const Subject& subject, const std::vector<double>& runs, const Goal& goal = {}) const;
    /// Adds a row to the table of parts, which explains the other one.
    void AddDetail(const std::string& what, const std::string& unit,
                   const std::vector<double>& runs) const;
    /// Adds a row that says why there is no value.
    void AddSkipped(const Subject& subject, const std::string& reason, const Goal& goal) const;
    void AddPoint(const std::string& plot, const std::string& label,
                  const std::vector<double>& runs) const;

  private:
    void AddRow(const char* pTable, const Subject& subject, const std::string& measured,
                const Goal& goal = {}, const char* pVerdict = "") const;
    void Append(const std::string& file, const std::string& line) const;

    const std::filesystem::path m_Folder;
};

/// What the caller of a benchmark chooses.
struct Options {
    int runs;
    int amount;                         ///< work of each run, in the benchmark's own unit
    std::vector<std::string> settings;  ///< what only some benchmarks need
};

using Benchmark = void (*)(const Options& options, const CResults& results);

/// The main function of a program with benchmarks: runs the one that the arguments name.
/// @param argv  NAME FOLDER RUNS AMOUNT [SETTING]...
/// @return exit status: 0, or 2 after an exception, whose text it prints
int RunBenchmark(int argc, char** argv, const std::map<std::string, Benchmark>& benchmarks);

#endif  // TALLYRA_BENCHMARKS_HARNESS_BENCHMARK_H
