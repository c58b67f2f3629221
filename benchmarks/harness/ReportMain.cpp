// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-report": merges the results of the benchmarks into two tables, and
// exits with status 1 if a goal was missed. It writes them to a folder as text, JSON and CSV, with
// the points of the plots.

#include "Benchmark.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace {

using nlohmann::json;

json Merge(const std::vector<std::string>& files) {
    json all{{"rows", json::array()}, {"plots", json::object()}};
    for (const std::string& path : files) {
        std::ifstream file(path);
        const json one = json::parse(file);
        all["rows"].insert(all["rows"].end(), one.at("rows").begin(), one.at("rows").end());
        all["plots"].update(one.at("plots"));
    }
    return all;
}

std::string Text(const json& all) {
    std::ostringstream out;
    for (const bool detail : {false, true}) {
        out << LineOf({{"what", detail ? "what it is made of" : "what"},
                       {"against", detail ? "" : "against"},
                       {"heading", "median [least .. most] of the runs"},
                       {"goal", detail ? "" : "goal"}})
            << "\n";
        for (const json& row : all.at("rows")) {
            if (row.at("detail") == detail) {
                out << LineOf(row) << "\n";
            }
        }
        out << "\n";
    }
    return out.str();
}

std::string Csv(const json& all) {
    std::ostringstream out;
    out << "what,against,unit,median,least,most,goal,met\n";
    for (const json& row : all.at("rows")) {
        for (const char* pColumn : {"what", "against", "unit", "median", "least", "most", "goal"}) {
            out << (row.contains(pColumn) ? row.at(pColumn).dump() : "") << ",";
        }
        out << VerdictOf(row) << "\n";
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
        WriteFile(folder + "/" + plot + ".dat", out.str());
    }
}

}  // namespace

int main(int argc, char** argv) try {
    std::vector<std::string> files;
    std::string folder;
    CLI::App app("Merges the results of the benchmarks into tables and plots.");
    app.add_option("files", files, "Results of the programs")->required();
    app.add_option("--folder", folder, "Write the files to this folder");
    CLI11_PARSE(app, argc, argv);
    const json all = Merge(files);
    std::fputs(Text(all).c_str(), stdout);
    if (!folder.empty()) {
        WriteFile(folder + "/results.txt", Text(all));
        WriteFile(folder + "/results.csv", Csv(all));
        WriteFile(folder + "/results.json", all.dump(2) + "\n");
        WritePoints(all, folder);
    }
    const auto missed = std::ranges::count(all.at("rows"), "MISSED", &VerdictOf);
    std::printf("%d goals missed\n", static_cast<int>(missed));
    return missed == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-bench-report: %s\n", error.what());
    return 2;
}
