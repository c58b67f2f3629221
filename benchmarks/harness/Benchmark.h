// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_BENCHMARK_H
#define TALLYRA_BENCHMARKS_HARNESS_BENCHMARK_H

#include <nlohmann/json.hpp>

#include <array>
#include <functional>
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

/// Collects the rows of the tables and the points of the plots.
///
/// Threads: one.
class CResults {
  public:
    /// Adds a row to the first table.
    /// @param runs  one value for each run; their median is compared with the goal
    void Add(const Subject& subject, const std::vector<double>& runs, const Goal& goal = {});
    /// Adds a row to the second table, which explains the first.
    void AddDetail(const std::string& what, const std::string& unit,
                   const std::vector<double>& runs);
    /// Adds a row that says why there is no value.
    void AddSkipped(const Subject& subject, const std::string& reason, const Goal& goal);
    /// Adds a point to a plot: median, least and most of the runs.
    void AddPoint(const std::string& plot, const std::string& label,
                  const std::vector<double>& runs);

    nlohmann::json ToJson() const { return {{"rows", m_Rows}, {"plots", m_Plots}}; }

  private:
    void AddRow(const Subject& subject, bool detail, const Goal& goal, nlohmann::json values);

    nlohmann::json m_Rows = nlohmann::json::array();
    nlohmann::json m_Plots = nlohmann::json::object();
};

/// @return a row as a line of the table
std::string LineOf(const nlohmann::json& row);
/// @return "met", "MISSED", or nothing for a row without a goal or a value
std::string VerdictOf(const nlohmann::json& row);

/// @throws std::runtime_error  if the file cannot be written
void WriteFile(const std::string& path, const std::string& text);

/// What the caller of a benchmark chooses.
struct Options {
    int runs = 5;
    int amount = 1;  ///< work of each run, in the benchmark's own unit
    /// What only some benchmarks need.
    std::map<std::string, std::string> settings = {};
};

using Benchmark = std::function<void(const Options& options, CResults& results)>;

/// The main function of a program with benchmarks: runs the one that the arguments name, and writes
/// its results to a file.
///
/// @return exit status: 0, or 2 after an exception, whose text it prints
int RunBenchmark(int argc, char** argv, const std::map<std::string, Benchmark>& benchmarks);

#endif  // TALLYRA_BENCHMARKS_HARNESS_BENCHMARK_H
