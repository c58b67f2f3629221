// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Results.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace {

double At(const std::vector<double>& sorted, double share) {
    const auto rank =
        static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

nlohmann::json RowOf(const Subject& subject, const Goal& goal) {
    return {{"what", subject.what},
            {"against", subject.against},
            {"unit", subject.unit},
            {"detail", subject.detail},
            {"goal", goal.Text()}};
}

}  // namespace

Summary Summary::Of(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    const double median =
        values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
    return {median, values.front(), values.back()};
}

nlohmann::json Summary::ToJson() const {
    return {{"median", median}, {"least", least}, {"most", most}};
}

void WriteJson(const std::string& path, const nlohmann::json& json) {
    std::ofstream file(path);
    file << json.dump(2) << "\n";
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}

Percentiles Percentiles::Of(std::vector<double>& samples) {
    std::sort(samples.begin(), samples.end());
    return {At(samples, 0.5), At(samples, 0.99), At(samples, 0.999)};
}

bool Goal::IsMetBy(double measured) const {
    return bound == Bound::AT_LEAST ? measured >= value : measured <= value;
}

std::string Goal::Text() const {
    if (bound == Bound::NONE) {
        return "";
    }
    char text[40];
    std::snprintf(text, sizeof(text), "%s %g", bound == Bound::AT_MOST ? "<=" : ">=", value);
    return text;
}

void CResults::Add(const Subject& subject, const std::vector<double>& runs, const Goal& goal) {
    const Summary summary = Summary::Of(runs);
    nlohmann::json row = RowOf(subject, goal);
    row.update(summary.ToJson());
    row["runs"] = runs;
    if (goal.bound != Goal::Bound::NONE) {
        row["met"] = goal.IsMetBy(summary.median);
    }
    std::printf("  %-44s %10.4g [%.4g .. %.4g] %s %s\n", subject.what.c_str(), summary.median,
                summary.least, summary.most, subject.unit.c_str(), goal.Text().c_str());
    std::fflush(stdout);
    m_Rows.push_back(std::move(row));
}

void CResults::AddSkipped(const Subject& subject, const std::string& reason, const Goal& goal) {
    nlohmann::json row = RowOf(subject, goal);
    row["skipped"] = reason;
    std::printf("  %-44s not measured: %s\n", subject.what.c_str(), reason.c_str());
    m_Rows.push_back(std::move(row));
}

void CResults::AddPoint(const std::string& plot, const std::string& label,
                        const std::vector<double>& runs) {
    nlohmann::json point = Summary::Of(runs).ToJson();
    point["label"] = label;
    m_Plots[plot].push_back(std::move(point));
}

void CResults::Write(const std::string& path) const {
    WriteJson(path, {{"rows", m_Rows}, {"plots", m_Plots}});
}

std::vector<double> Ratios(const std::vector<double>& numbers, const std::vector<double>& others) {
    std::vector<double> ratios;
    ratios.reserve(numbers.size());
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        ratios.push_back(numbers[i] / others.at(i));
    }
    return ratios;
}
