// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Benchmark.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>

using nlohmann::json;

namespace {

double At(const std::vector<double>& sorted, double share) {
    const auto rank =
        static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

json Summary(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    const double median =
        values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
    return {{"median", median}, {"least", values.front()}, {"most", values.back()}};
}

json Values(const std::vector<double>& runs) {
    json values = Summary(runs);
    values["runs"] = runs;
    return values;
}

std::string Number(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), value >= 1000 ? "%.0f" : "%.3g", value);
    return text;
}

std::string Measured(const json& row) {
    if (row.contains("heading")) {
        return row.at("heading");
    }
    if (row.contains("skipped")) {
        return "not measured: " + row.at("skipped").get<std::string>();
    }
    std::string text = Number(row.at("median"));
    if (row.at("least") != row.at("most")) {
        text += " [" + Number(row.at("least")) + " .. " + Number(row.at("most")) + "]";
    }
    return text + " " + row.at("unit").get<std::string>();
}

}  // namespace

void AddPercentiles(std::vector<double> samples, Series& series) {
    std::sort(samples.begin(), samples.end());
    series["median"].push_back(At(samples, 0.5));
    series["p99"].push_back(At(samples, 0.99));
    series["p99.9"].push_back(At(samples, 0.999));
}

std::vector<double> Ratios(const std::vector<double>& numbers, const std::vector<double>& others) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        ratios.push_back(numbers[i] / others.at(i));
    }
    return ratios;
}

void CResults::Add(const Subject& subject, const std::vector<double>& runs, const Goal& goal) {
    json values = Values(runs);
    if (!goal.sign.empty()) {
        const double median = values.at("median");
        values["met"] = goal.sign == "<=" ? median <= goal.value : median >= goal.value;
    }
    AddRow(subject, false, goal, std::move(values));
}

void CResults::AddDetail(const std::string& what, const std::string& unit,
                         const std::vector<double>& runs) {
    AddRow({what, "", unit}, true, {}, Values(runs));
}

void CResults::AddSkipped(const Subject& subject, const std::string& reason, const Goal& goal) {
    AddRow(subject, false, goal, {{"skipped", reason}});
}

void CResults::AddPoint(const std::string& plot, const std::string& label,
                        const std::vector<double>& runs) {
    json point = Summary(runs);
    point["label"] = label;
    m_Plots[plot].push_back(std::move(point));
}

void CResults::AddRow(const Subject& subject, bool detail, const Goal& goal, json values) {
    values.update({{"what", subject.what},
                   {"against", subject.against},
                   {"unit", subject.unit},
                   {"detail", detail},
                   {"goal", goal.sign.empty() ? "" : goal.sign + " " + Number(goal.value)}});
    std::printf("  %s\n", LineOf(values).c_str());
    std::fflush(stdout);
    m_Rows.push_back(std::move(values));
}

std::string LineOf(const json& row) {
    char line[400];
    std::snprintf(line, sizeof(line), "%-46s %-34s %-38s %-8s %s",
                  row.at("what").get<std::string>().c_str(),
                  row.at("against").get<std::string>().c_str(), Measured(row).c_str(),
                  row.at("goal").get<std::string>().c_str(), VerdictOf(row).c_str());
    const std::string text = line;
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

std::string VerdictOf(const json& row) {
    return !row.contains("met") ? "" : row.at("met").get<bool>() ? "met" : "MISSED";
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}

int RunBenchmark(int argc, char** argv, const std::map<std::string, Benchmark>& benchmarks) try {
    Options options;
    std::string name;
    std::string path;
    std::vector<std::pair<std::string, std::string>> settings;
    CLI::App app("Runs a benchmark.");
    app.add_option("name", name, "The benchmark")->required();
    app.add_option("--json", path, "Write the results to this file")->required();
    app.add_option("--runs", options.runs, "Repeat the measurement N times")
        ->check(CLI::Range(1, 1000));
    app.add_option("--amount", options.amount, "Work of each run")->check(CLI::PositiveNumber);
    app.add_option("--set", settings, "A setting of the benchmark: its name and its value");
    CLI11_PARSE(app, argc, argv);
    options.settings = {settings.begin(), settings.end()};
    CResults results;
    benchmarks.at(name)(options, results);
    WriteFile(path, results.ToJson().dump(2) + "\n");
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 2;
}
