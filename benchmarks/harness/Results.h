// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_RESULTS_H
#define TALLYRA_BENCHMARKS_HARNESS_RESULTS_H

#include <nlohmann/json.hpp>

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Summarises repeated measurements.
struct Summary {
    double median = 0;
    double least = 0;
    double most = 0;

    /// @param values  at least one
    static Summary Of(std::vector<double> values);
    nlohmann::json ToJson() const;
};

/// Writes a JSON file.
/// @throws std::runtime_error  if it cannot be written
void WriteJson(const std::string& path, const nlohmann::json& json);

/// Percentiles of the calls of one run, in the unit of the samples.
struct Percentiles {
    double median;
    double p99;
    double p999;

    /// @param samples  at least one; they are reordered
    static Percentiles Of(std::vector<double>& samples);
};

/// The limit of a measurement.
struct Goal {
    enum class Bound { NONE, AT_MOST, AT_LEAST };

    Bound bound = Bound::NONE;
    double value = 0;

    static Goal AtMost(double value) { return {Bound::AT_MOST, value}; }
    static Goal AtLeast(double value) { return {Bound::AT_LEAST, value}; }
    bool IsMetBy(double measured) const;
    std::string Text() const;
};

/// A row of the table: what was measured, and what it is compared with.
struct Subject {
    std::string what;
    std::string against;
    std::string unit;
    /// Whether it belongs to the second table, which explains the first.
    bool detail = false;
};

/// Collects the rows of the table and the points of the plots.
///
/// Threads: one.
class CResults {
  public:
    /// Adds a row.
    /// @param runs  one value for each run; their median is compared with the goal
    void Add(const Subject& subject, const std::vector<double>& runs, const Goal& goal = {});
    /// Adds a row that says why there is no value.
    void AddSkipped(const Subject& subject, const std::string& reason, const Goal& goal = {});
    /// Adds a point to a plot: median, least and most of the runs.
    void AddPoint(const std::string& plot, const std::string& label,
                  const std::vector<double>& runs);

    /// @throws std::runtime_error  if the file cannot be written
    void Write(const std::string& path) const;

  private:
    nlohmann::json m_Rows = nlohmann::json::array();
    nlohmann::json m_Plots = nlohmann::json::object();
};

/// @return `numbers[i] / others[i]` for each run
std::vector<double> Ratios(const std::vector<double>& numbers, const std::vector<double>& others);

/// @return one value of each run, as in `Each(runs, &Percentiles::p99)`.
template <class Run, class Member>
std::vector<double> Each(const std::vector<Run>& runs, Member member) {
    std::vector<double> values;
    values.reserve(runs.size());
    for (const Run& run : runs) {
        values.push_back(static_cast<double>(std::invoke(member, run)));
    }
    return values;
}

#endif  // TALLYRA_BENCHMARKS_HARNESS_RESULTS_H
