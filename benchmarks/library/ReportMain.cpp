// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-report": merges the results of the other programs into two tables, a
// JSON file, a CSV file, and the points of the plots.

#include "Results.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>

namespace {

using nlohmann::json;

json ReadJson(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return json::parse(file);
}

/// Merges the results of all programs.
json Merge(const std::vector<std::string>& files) {
    json all{{"rows", json::array()}, {"plots", json::object()}};
    for (const std::string& path : files) {
        const json one = ReadJson(path);
        all["rows"].insert(all["rows"].end(), one.at("rows").begin(), one.at("rows").end());
        all["plots"].update(one.at("plots"));
    }
    return all;
}

// Skips the aggregates that Google Benchmark writes after the repetitions.
void AddSteps(const std::string& path, json& all) {
    std::map<std::string, std::vector<double>> steps;
    const json measured = ReadJson(path);
    for (const json& step : measured.at("benchmarks")) {
        if (step.at("run_type") == "iteration") {
            steps[step.at("run_name")].push_back(step.at("cpu_time"));
        }
    }
    for (const auto& [name, runs] : steps) {
        json row{{"what", "step: " + name}, {"against", ""}, {"unit", "ns"},
                 {"detail", true},          {"goal", ""},    {"runs", runs}};
        row.update(Summary::Of(runs).ToJson());
        all["rows"].push_back(std::move(row));
    }
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
    if (row.at("runs").size() > 1) {
        text += " [" + Number(row.at("least")) + " .. " + Number(row.at("most")) + "]";
    }
    return text + " " + row.at("unit").get<std::string>();
}

std::string Verdict(const json& row) {
    return !row.contains("met") ? "" : row.at("met").get<bool>() ? "met" : "MISSED";
}

void PrintLine(std::ostream& out, const json& row) {
    char line[400];
    std::snprintf(line, sizeof(line), "%-46s %-34s %-38s %-8s %s",
                  row.at("what").get<std::string>().c_str(),
                  row.at("against").get<std::string>().c_str(), Measured(row).c_str(),
                  row.at("goal").get<std::string>().c_str(), Verdict(row).c_str());
    const std::string text = line;
    out << text.substr(0, text.find_last_not_of(' ') + 1) << "\n";
}

std::string Text(const json& all) {
    std::ostringstream out;
    for (const bool detail : {false, true}) {
        PrintLine(out, {{"what", detail ? "what it is made of" : "what"},
                        {"against", detail ? "" : "against"},
                        {"heading", "median [least .. most] of the runs"},
                        {"goal", detail ? "" : "goal"}});
        for (const json& row : all.at("rows")) {
            if (row.at("detail") == detail) {
                PrintLine(out, row);
            }
        }
        out << "\n";
    }
    return out.str();
}

void Write(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}

std::string Csv(const json& all) {
    std::ostringstream out;
    out << "what,against,unit,median,least,most,goal,met\n";
    for (const json& row : all.at("rows")) {
        out << row.at("what") << "," << row.at("against") << "," << row.at("unit") << ",";
        if (row.contains("median")) {
            out << row.at("median") << "," << row.at("least") << "," << row.at("most");
        } else {
            out << ",,";
        }
        out << "," << row.at("goal") << "," << Verdict(row) << "\n";
    }
    return out.str();
}

/// Writes one file for each plot: label, median, least and most.
void WritePoints(const json& all, const std::string& folder) {
    for (const auto& [plot, points] : all.at("plots").items()) {
        std::ostringstream out;
        for (const json& point : points) {
            out << point.at("label") << " " << point.at("median") << " " << point.at("least") << " "
                << point.at("most") << "\n";
        }
        Write((std::filesystem::path(folder) / plot).string() + ".dat", out.str());
    }
}

/// @return number of missed goals
int CountMissed(const json& all) {
    int missed = 0;
    for (const json& row : all.at("rows")) {
        missed += Verdict(row) == "MISSED" ? 1 : 0;
    }
    return missed;
}

}  // namespace

int main(int argc, char** argv) try {
    std::vector<std::string> files;
    std::string steps;
    std::string folder = ".";
    CLI::App app("Merges the results of the benchmarks into tables and plots.");
    app.add_option("files", files, "Results of the programs")->required();
    app.add_option("--steps", steps, "Results of Google Benchmark");
    app.add_option("--folder", folder, "Write the files to this folder");
    CLI11_PARSE(app, argc, argv);
    json all = Merge(files);
    if (!steps.empty()) {
        AddSteps(steps, all);
    }
    const std::string text = Text(all);
    std::cout << text;
    Write(folder + "/results.txt", text);
    Write(folder + "/results.csv", Csv(all));
    WriteJson(folder + "/results.json", all);
    WritePoints(all, folder);
    std::cout << CountMissed(all) << " goals missed\n";
    return CountMissed(all) == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-bench-report: %s\n", error.what());
    return 2;
}
