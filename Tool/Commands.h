// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_COMMANDS_H
#define TALLYRA_TOOL_COMMANDS_H

#include "Rows.h"
#include "TYDatabase.h"

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

/// Exit codes of the program.
enum ExitCode : int {
    EXIT_OK = 0,
    EXIT_FAILED = 1,     ///< the database or the output failed
    EXIT_USAGE = 2,      ///< wrong arguments
    EXIT_NOT_FOUND = 3,  ///< no such playback, policy or binding
};

/// The values that all commands use: the store, the output and the time.
struct Context {
    std::string db;
    Format format = Format::TABLE;
    std::ostream& out;
    std::ostream& errors;
    Sink sink = Sink::PROGRAM;  ///< what `out` is connected to
    std::int64_t now = 0;       ///< nanoseconds since the epoch
};

/// Selects records or playbacks. Empty members match everything.
struct Filter {
    std::string application;
    std::string playback;
    std::optional<int> code;
    std::optional<std::int64_t> since;
    std::optional<std::int64_t> until;
    std::int64_t limit = -1;  ///< maximum number, the newest; -1 for all

    /// Adds the options --since and --until; relative times count back from `now`.
    void AddTimes(CLI::App& app, std::int64_t now);
    /// Adds all filter options.
    void AddAll(CLI::App& app, std::int64_t now);
};

/// Opens the store read-only.
/// @throws CTYDatabaseError  if this build cannot read it; the text names the file
CTYDatabase OpenForReading(const Context& context);

/// Opens the store for changes. Never creates one, because the service could not write to a file
/// that another user owns.
/// @throws CTYDatabaseError  as OpenForReading
CTYDatabase OpenForWriting(const Context& context);

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

/// A change of an application's policy or of its bindings. Empty members change nothing.
struct PolicyChange {
    std::string application;
    std::optional<int> value;
    std::optional<int> keepQueries;  ///< 0: redact the queries of URLs; 1: keep them
    std::vector<std::int64_t> uids;  ///< users to bind or unbind; none: unbind all
};
int SetPolicy(const Context& context, const PolicyChange& change);
int UnsetPolicy(const Context& context, const std::string& application);
int BindApplication(const Context& context, const PolicyChange& change);
int UnbindApplication(const Context& context, const PolicyChange& change);

int PrintStats(const Context& context);
int PrintStatus(const Context& context);
int Check(const Context& context);

/// Which records to delete: those of exactly one member, or all.
struct ForgetOptions {
    std::optional<std::string> application;
    std::optional<std::string> playback;
    std::optional<std::int64_t> uid;     ///< -1: unknown
    std::optional<std::int64_t> before;  ///< time of arrival, nanoseconds since the epoch
    bool all = false;
    bool vacuum = false;
    bool yes = false;  ///< do not ask
};
int Forget(const Context& context, const ForgetOptions& options);

/// @param path  file of record images; "-" for standard input
int Decode(const Context& context, const std::string& path);

struct ExportOptions {
    Filter filter;
    std::string output = "-";
    std::optional<mode_t> mode;  ///< permissions of the file
};
int Export(const Context& context, const ExportOptions& options);

#endif  // TALLYRA_TOOL_COMMANDS_H
