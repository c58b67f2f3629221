// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Benchmark.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace {

struct Spread {
    explicit Spread(std::vector<double> runs) {
        std::ranges::sort(runs);
        const std::size_t middle = runs.size() / 2;
        median = runs.size() % 2 == 1 ? runs[middle] : (runs[middle - 1] + runs[middle]) / 2;
        least = runs.front();
        most = runs.back();
    }

    double median;
    double least;
    double most;
};

std::string Number(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), value >= 1000 ? "%.0f" : "%.3g", value);
    return text;
}

std::string Text(const Spread& spread, const std::string& unit) {
    std::string text = Number(spread.median);
    if (spread.least != spread.most) {
        text += " [" + Number(spread.least) + " .. " + Number(spread.most) + "]";
    }
    return text + " " + unit;
}

}  // namespace

void AddPercentiles(std::vector<double> samples, Series& series) {
    std::ranges::sort(samples);
    const auto count = static_cast<double>(samples.size());
    for (const auto& [name, share] : {std::pair{"median", 0.5}, {"p99", 0.99}, {"p99.9", 0.999}}) {
        series[name].push_back(samples.at(static_cast<std::size_t>(std::ceil(share * count)) - 1));
    }
}

std::vector<double> Ratios(const std::vector<double>& numbers, const std::vector<double>& others) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        ratios.push_back(numbers[i] / others.at(i));
    }
    return ratios;
}

void CResults::Add(const Subject& subject, const std::vector<double>& runs,
                   const Goal& goal) const {
    const Spread spread(runs);
    const bool met = goal.sign == "<=" ? spread.median <= goal.value : spread.median >= goal.value;
    AddRow("goals.txt", subject, Text(spread, subject.unit), goal, met ? "met" : "MISSED");
}

void CResults::AddDetail(const std::string& what, const std::string& unit,
                         const std::vector<double>& runs) const {
    AddRow("parts.txt", {what, "", unit}, Text(Spread(runs), unit));
}

void CResults::AddSkipped(const Subject& subject, const std::string& reason,
                          const Goal& goal) const {
    AddRow("goals.txt", subject, "not measured: " + reason, goal);
}

void CResults::AddPoint(const std::string& plot, const std::string& label,
                        const std::vector<double>& runs) const {
    const Spread spread(runs);
    Append(plot + ".dat", "\"" + label + "\" " + Number(spread.median) + " " +
                              Number(spread.least) + " " + Number(spread.most));
}

void CResults::AddRow(const char* pTable, const Subject& subject, const std::string& measured,
                      const Goal& goal, const char* pVerdict) const {
    const bool hasGoal = !goal.sign.empty();
    const std::string limit = hasGoal ? goal.sign + " " + Number(goal.value) : "";
    char line[400];
    std::snprintf(line, sizeof(line), "%-46s %-34s %-38s %-8s %s", subject.what.c_str(),
                  subject.against.c_str(), measured.c_str(), limit.c_str(),
                  hasGoal ? pVerdict : "");
    std::string text = line;
    text.erase(text.find_last_not_of(' ') + 1);
    std::printf("  %s\n", text.c_str());
    std::fflush(stdout);
    Append(pTable, text);
}

void CResults::Append(const std::string& file, const std::string& line) const {
    std::ofstream stream(m_Folder / file, std::ios::app);
    if (!(stream << line << std::endl)) {
        throw std::runtime_error("cannot write " + file);
    }
}

int RunBenchmark(int argc, char** argv, const std::map<std::string, Benchmark>& benchmarks) try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const Options options{std::stoi(arguments.at(2)),
                          std::stoi(arguments.at(3)),
                          {arguments.begin() + 4, arguments.end()}};
    benchmarks.at(arguments.at(0))(options, CResults(arguments.at(1)));
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 2;
}
