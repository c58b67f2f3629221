// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_LIBRARY_RESULTS_H
#define TALLYRA_BENCHMARKS_LIBRARY_RESULTS_H

#include <nlohmann/json.hpp>

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// What one run says about the calls that it timed, in nanoseconds.
struct Percentiles {
    double median;
    double p99;
    double p999;

    /// @param samples  at least one; they are reordered
    static Percentiles Of(std::vector<double>& samples);
};

/// The value that a measurement must not pass.
struct Goal {
    enum class Bound { NONE, AT_MOST, AT_LEAST };

    Bound bound = Bound::NONE;
    double value = 0;

    static Goal AtMost(double value) { return {Bound::AT_MOST, value}; }
    static Goal AtLeast(double value) { return {Bound::AT_LEAST, value}; }
    bool IsMetBy(double measured) const;
    std::string Text() const;
};

/// A line of the table: what was measured, and what it is measured against.
struct Subject {
    std::string what;
    std::string against;
    std::string unit;
    /// Whether it stands in the second table, which explains the first.
    bool detail = false;
};

/// What a program has measured: lines of the table, and the points of the plots.
///
/// Threads: one.
class CResults {
  public:
    /// @param runs  one value a run, at least one; the median decides whether the goal is met
    void Add(const Subject& subject, const std::vector<double>& runs, const Goal& goal = {});
    /// A line that says why there is no value.
    void AddSkipped(const Subject& subject, const std::string& reason, const Goal& goal = {});
    /// A point of a plot: the median of the runs, the least and the most of them.
    void AddPoint(const std::string& plot, const std::string& label,
                  const std::vector<double>& runs);

    /// @throws std::runtime_error  when the file cannot be written
    void Write(const std::string& path) const;

  private:
    nlohmann::json m_Rows = nlohmann::json::array();
    nlohmann::json m_Plots = nlohmann::json::object();
};

/// @return `numbers[i] / others[i]` for each run
std::vector<double> Ratios(const std::vector<double>& numbers, const std::vector<double>& others);

/// One value of each run, as in `Each(runs, &Percentiles::p99)`.
template <class Run, class Member>
std::vector<double> Each(const std::vector<Run>& runs, Member member) {
    std::vector<double> values;
    values.reserve(runs.size());
    for (const Run& run : runs) {
        values.push_back(static_cast<double>(std::invoke(member, run)));
    }
    return values;
}

#endif  // TALLYRA_BENCHMARKS_LIBRARY_RESULTS_H
