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
    Zone zone = Zone::UTC;      ///< of times that are printed, and of those read without an offset
    bool safeCsv = false;       ///< see RowStyle
};

/// Selects records or playbacks. Empty members match everything. All members are initialised here,
/// so that callers may name only some.
struct Filter {
    std::string application{};
    std::string playback{};
    std::optional<std::int64_t> number{};  ///< of a row in the table playbacks
    std::vector<int> codes{};              ///< records with one of these
    bool errors = false;                   ///< errors; with codes, records with one of these too
    std::string title{};                   ///< a part of the title, without case
    std::optional<std::int64_t> uid{};     ///< -1: unknown
    std::optional<int> network{};          ///< a TY_NETWORK_TYPE
    std::optional<std::int64_t> since{};
    std::optional<std::int64_t> until{};
    bool byRecordTime = false;  ///< whether since and until mean the record's time, or its arrival
    std::int64_t limit = -1;    ///< maximum number, the newest; -1 for all

    /// Adds the options --since and --until. They depend on the context's time and zone.
    void AddTimes(CLI::App& app, Context& context);
    /// Adds --application, --title, --uid, --network, --errors and --limit.
    void AddSelection(CLI::App& app);
    /// Adds all filter options of records.
    void AddAll(CLI::App& app, Context& context);
};

/// In which order rows are printed. With a column, the limit selects the first rows in that order.
struct Order {
    std::string column{};  ///< empty: the order of the records' arrival
    bool reverse = false;  ///< the other way round
};

/// Opens the store read-only. Its statements may use the function contains_text.
/// @throws CTYDatabaseError  if this build cannot read it; the text names the file
CTYDatabase OpenForReading(const Context& context);

/// Opens the store for changes. Never creates one, because the service could not write to a file
/// that another user owns.
/// @throws CTYDatabaseError  as OpenForReading
CTYDatabase OpenForWriting(const Context& context);

/// @return the columns of the terminal, 0 if it does not tell; 160 if the output goes elsewhere
std::size_t WidthOfOutput(const Context& context);
/// @return how the context's output is printed
RowStyle StyleOf(const Context& context);
std::unique_ptr<IRowWriter> MakeWriter(const Context& context, std::vector<std::string> columns);

/// Completes the output. A table without rows prints nothing; then a line on standard error says
/// so.
/// @param pNothing  that line, such as "no records match"
void EndRows(const Context& context, IRowWriter& writer, const char* pNothing);

struct RecordsOptions {
    Filter filter{};
    Order order{};
    bool follow = false;
    bool raw = false;
};
int PrintRecords(const Context& context, const RecordsOptions& options);
/// @return the columns that records can be sorted by
std::vector<std::string> RecordSortColumns();

struct PlaybacksOptions {
    Filter filter{};
    Order order{};
    std::vector<std::string> ends{};  ///< as PlaybackEnds names them; none: all
};
int PrintPlaybacks(const Context& context, const PlaybacksOptions& options);
/// @return the columns that playbacks can be sorted by
std::vector<std::string> PlaybackSortColumns();
/// @return the ways to end that playbacks can be selected by: the words of the column "end", and
///         "completed"
std::vector<std::string> PlaybackEnds();

/// Which playback to show.
struct ShowOptions {
    std::string playback{};     ///< the beginning of its identifier
    bool last = false;          ///< the newest instead
    std::string application{};  ///< with last: that of this application
    bool whole = false;         ///< cut no text
};
int ShowPlayback(const Context& context, const ShowOptions& options);

int ListPolicies(const Context& context);

/// A change of an application's policy or of its bindings. Empty members change nothing.
struct PolicyChange {
    std::string application;
    std::optional<int> value;
    std::optional<int> keepQueries;  ///< 0: redact the queries of URLs; 1: keep them
    std::vector<std::int64_t> uids;  ///< users to bind or unbind; none: unbind all
};
/// Each prints the policy that is in force for the application then.
int SetPolicy(const Context& context, const PolicyChange& change);
int UnsetPolicy(const Context& context, const std::string& application);
int BindApplication(const Context& context, const PolicyChange& change);
int UnbindApplication(const Context& context, const PolicyChange& change);

int PrintStats(const Context& context);
/// @param address  of the service's bus; empty for the system bus
int PrintStatus(const Context& context, const std::string& address);
int Check(const Context& context);

struct WatchOptions {
    std::string application{};  ///< empty: any
    int interval = 1;           ///< seconds between refreshes
    bool once = false;          ///< print one snapshot
    std::string address{};      ///< of the service's bus; empty for the system bus
};
/// Prints the playbacks that are playing now, again and again until a signal arrives.
int Watch(const Context& context, const WatchOptions& options);

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
    std::optional<std::string> after;  ///< the cursor of an earlier export; "start" for all
    std::string output = "-";
    std::optional<mode_t> mode;  ///< permissions of the file
};
int Export(const Context& context, const ExportOptions& options);

/// The playbacks that a report is about. Empty members select all.
struct ReportOptions {
    std::string application;
    std::optional<std::int64_t> since;  ///< of their begin, nanoseconds since the epoch
    std::optional<std::int64_t> until;
    std::string output;
    std::optional<mode_t> mode;  ///< permissions of the file
};
int Report(const Context& context, const ReportOptions& options);

#endif  // TALLYRA_TOOL_COMMANDS_H
