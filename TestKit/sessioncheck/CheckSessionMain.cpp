// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Contract.h"

#include "PrintedText.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>

// The program "tallyra-check-session": checks what a player has reported against the contract of
// the library.

namespace {

constexpr int kComplaints = 1;
constexpr int kUnusable = 2;

std::string Join(const std::vector<std::size_t>& lines) {
    std::string text;
    for (const std::size_t line : lines) {
        text += (text.empty() ? "" : ",") + std::to_string(line);
    }
    return text;
}

std::string Number(std::size_t count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::vector<Playback> Read(const std::string& file) {
    if (file == "-") {
        return ReadSessions(std::cin, "standard input");
    }
    std::ifstream source(file);
    if (!source) {
        throw SessionFileError(file + ": cannot be read");
    }
    return ReadSessions(source, file);
}

int Check(const std::string& file) {
    std::size_t records = 0;
    std::size_t complaints = 0;
    const std::vector<Playback> playbacks = Read(file);
    for (const Playback& playback : playbacks) {
        records += playback.records.size();
        for (const Complaint& complaint : CheckPlayback(playback)) {
            ++complaints;
            std::cout << file << ":" << Join(complaint.lines) << ": " << Printable(complaint.text)
                      << "\n";
        }
    }
    std::cout << Number(playbacks.size(), "playback") << ", " << Number(records, "record") << ", "
              << Number(complaints, "complaint") << std::endl;
    if (!std::cout.good()) {
        throw SessionFileError("writing the output failed");
    }
    return complaints == 0 ? EXIT_SUCCESS : kComplaints;
}

}  // namespace

int main(int argc, char** argv) try {
    std::string file;
    CLI::App app(
        "Checks what a player has reported: the order of its calls, positions and values. "
        "Says for each mistake what to change.",
        "tallyra-check-session");
    app.set_version_flag("--version", TALLYRA_VERSION);
    app.add_option("FILE", file,
                   "Records as JSON lines, from tallyra-testservice or from 'tallyra export'; - is "
                   "standard input")
        ->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : kUnusable;
    }
    return Check(file);
} catch (const std::exception& error) {
    std::cerr << "tallyra-check-session: " << Printable(error.what()) << "\n";
    return kUnusable;
}
