// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_COMMANDS_H
#define TALLYRA_TOOL_COMMANDS_H

#include "Rows.h"
#include "TYDatabase.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

/// What the program exits with.
enum ExitCode : int {
    EXIT_OK = 0,
    EXIT_FAILED = 1,     ///< the database or the output failed
    EXIT_USAGE = 2,      ///< wrong arguments
    EXIT_NOT_FOUND = 3,  ///< what was asked for is not there
};

/// What every command knows.
struct Context {
    std::string db;
    Format format = Format::TABLE;
    std::ostream& out;
    std::ostream& errors;
    Sink sink = Sink::PROGRAM;  ///< what `out` is
    std::int64_t now = 0;       ///< nanoseconds since the epoch
};

/// Which records or playbacks are meant.
struct Filter {
    std::string application;
    std::string playback;
    std::optional<int> code;
    std::optional<std::int64_t> since;
    std::optional<std::int64_t> until;
    std::int64_t limit = -1;

    /// Adds the options that fill it; times are relative to `now`.
    void AddTimes(CLI::App& app, std::int64_t now);
    void AddAll(CLI::App& app, std::int64_t now);
};

/// @return the database, for reading
/// @throws CTYDatabaseError  when it is none that this build reads; the text names the file
CTYDatabase OpenForReading(const Context& context);

std::unique_ptr<IRowWriter> MakeWriter(const Context& context, std::vector<std::string> columns);

struct RecordsOptions {
    Filter filter;
    bool follow = false;
    bool raw = false;
};
int PrintRecords(const Context& context, const RecordsOptions& options);

int PrintPlaybacks(const Context& context, const Filter& filter);
int ShowPlayback(const Context& context, const std::string& playback);

int ListPolicies(const Context& context);
int SetPolicy(const Context& context, const std::string& application, int value);
int UnsetPolicy(const Context& context, const std::string& application);

int PrintStats(const Context& context);

/// @param path  of a file of images, "-" for standard input
int Decode(const Context& context, const std::string& path);

struct ExportOptions {
    Filter filter;
    std::string output = "-";
};
int Export(const Context& context, const ExportOptions& options);

#endif  // TALLYRA_TOOL_COMMANDS_H
