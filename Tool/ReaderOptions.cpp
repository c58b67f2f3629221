// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Options.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <string>
#include <system_error>

// The options of the commands that only read.

namespace {

constexpr std::int64_t kRowsUnlessTold = 100;

void AddRecords(CCommandLine& line) {
    const auto pOptions = std::make_shared<RecordsOptions>();
    CLI::App& command =
        line.Add("records", "Print records, oldest first",
                 [pOptions](const Context& context) { return PrintRecords(context, *pOptions); });
    pOptions->filter.limit = kRowsUnlessTold;
    pOptions->filter.AddAll(command, line.Values());
    AddOrder(command, pOptions->order, RecordSortColumns());
    command
        .add_flag("-f,--follow", pOptions->follow, "Keep printing new records until interrupted")
        ->excludes("--sort")
        ->excludes("--reverse");
    AddFormat(command, line.Values());
    command
        .add_flag("--raw", pOptions->raw,
                  "Write the raw 4800-byte images, which the command decode reads")
        ->excludes("--follow")
        ->excludes("--format")
        ->excludes("--safe-csv");
}

std::string EndNames() {
    std::string names;
    for (const std::string& end : PlaybackEnds()) {
        names += (names.empty() ? "" : ", ") + end;
    }
    return names;
}

void TakeEnds(const std::vector<std::string>& words, std::vector<std::string>& ends) {
    const auto known = PlaybackEnds();
    for (const std::string& word : words) {
        if (std::find(known.begin(), known.end(), word) == known.end()) {
            throw CLI::ValidationError("--end",
                                       "not a way to end: " + word + "; one of " + EndNames());
        }
    }
    ends = words;
}

void AddPlaybacks(CCommandLine& line) {
    const auto pOptions = std::make_shared<PlaybacksOptions>();
    CLI::App& command =
        line.Add("playbacks", "Print playbacks with their totals, newest first",
                 [pOptions](const Context& context) { return PrintPlaybacks(context, *pOptions); });
    pOptions->filter.limit = kRowsUnlessTold;
    pOptions->filter.AddTimes(command, line.Values());
    command.get_option("--since")->description(
        "Select only playbacks with a record that arrived at or after this time: "
        "2026-11-21T07:30, 2026-11-21, today, @SECONDS, or an age such as 2h");
    command.get_option("--until")->description(
        "Select only playbacks with a record that arrived before this time");
    pOptions->filter.AddSelection(command);
    AddWords(
        command, "--end",
        [pOptions](const std::vector<std::string>& words) { TakeEnds(words, pOptions->ends); },
        "Select only playbacks that ended like this: " + EndNames() + " as kpi counts it");
    AddOrder(command, pOptions->order, PlaybackSortColumns());
    AddFormat(command, line.Values());
}

void AddShow(CCommandLine& line) {
    const auto pOptions = std::make_shared<ShowOptions>();
    CLI::App& command =
        line.Add("show", "Print all records of a playback as a timeline",
                 [pOptions](const Context& context) { return ShowPlayback(context, *pOptions); });
    CLI::Option& playback = *command.add_option(
        "playback", pOptions->playback, "Identifier of the playback, or the beginning of one");
    CLI::Option& last = *command.add_flag("--last", pOptions->last, "Show the newest playback");
    last.excludes(&playback);
    command
        .add_option("--application", pOptions->application,
                    "With --last: the newest playback of this application")
        ->needs(&last);
    command.add_flag("--full", pOptions->whole, "Cut no long text");
    command.callback([pOptions, &playback] {
        if (!pOptions->last && playback.count() == 0) {
            throw CLI::RequiredError("a playback or --last");
        }
    });
    AddFormat(command, line.Values());
}

void AddAddress(CLI::App& command, std::string& address) {
    command.add_option("--address", address,
                       "Look for the service on the bus at this D-Bus address instead of the "
                       "system bus");
}

void AddWatch(CCommandLine& line) {
    constexpr int kSecondsAnHour = 3600;
    const auto pOptions = std::make_shared<WatchOptions>();
    CLI::App& command =
        line.Add("watch", "Print what plays now, one line a playback, until interrupted",
                 [pOptions](const Context& context) { return Watch(context, *pOptions); });
    command.add_option("--application", pOptions->application, "Select only this application");
    TakeNumbers(
        *command.add_option("--interval", pOptions->interval, "Refresh every this many seconds")
             ->capture_default_str(),
        1, kSecondsAnHour);
    command.add_flag("--once", pOptions->once, "Print one snapshot and exit");
    AddAddress(command, pOptions->address);
    AddFormat(command, line.Values());
}

void AddStatus(CCommandLine& line) {
    const auto pAddress = std::make_shared<std::string>();
    CLI::App& command = line.Add(
        "status", "Print how the service is, what its store holds and lost, and the policies",
        [pAddress](const Context& context) { return PrintStatus(context, *pAddress); });
    AddAddress(command, *pAddress);
    AddFormat(command, line.Values());
}

void AddDecode(CCommandLine& line) {
    const auto pFile = std::make_shared<std::string>("-");
    CLI::App& command =
        line.Add("decode", "Print records from raw images",
                 [pFile](const Context& context) { return Decode(context, *pFile); });
    command.add_option("file", *pFile, "Read raw images from this file; - for standard input");
    AddFormat(command, line.Values());
}

mode_t ParseMode(const std::string& text) {
    constexpr unsigned kMostBits = 0777;
    unsigned bits = 0;
    const char* pEnd = text.data() + text.size();
    const auto [pStopped, error] = std::from_chars(text.data(), pEnd, bits, 8);
    if (error != std::errc() || pStopped != pEnd || bits > kMostBits) {
        throw CLI::ValidationError("--mode", "not permissions such as 0640: " + text);
    }
    return bits;
}

void AddMode(CLI::App& command, std::optional<mode_t>& mode) {
    command.add_option_function<std::string>(
        "--mode", [&mode](const std::string& text) { mode = ParseMode(text); },
        "Give the file these permissions, in octal; 0600 unless an existing file has others");
}

}  // namespace

void AddReaders(CCommandLine& line) {
    AddRecords(line);
    AddPlaybacks(line);
    AddShow(line);
    AddWatch(line);
    AddFormat(
        line.Add("stats", "Print totals and the number of records known to be lost", &PrintStats),
        line.Values());
    AddStatus(line);
    AddFormat(line.Add("check", "Check the store for damage; exit with 1 if there is any", &Check),
              line.Values());
    AddDecode(line);
}

void AddExport(CCommandLine& line) {
    const auto pOptions = std::make_shared<ExportOptions>();
    CLI::App& command =
        line.Add("export", "Write records for other systems, as JSON lines unless told otherwise",
                 [pOptions](const Context& context) { return Export(context, *pOptions); });
    pOptions->filter.AddAll(command, line.Values());
    command.add_option("--after", pOptions->after,
                       "Go on after the cursor that an earlier export gave, with the oldest "
                       "records; start: from the first record on");
    RefuseEmpty(*command.add_option("-o,--output", pOptions->output,
                                    "Write to this file; - for standard output"));
    AddMode(command, pOptions->mode);
    AddFormat(command, line.Values(), Format::JSONL);
}

void AddReport(CCommandLine& line) {
    const auto pOptions = std::make_shared<ReportOptions>();
    CLI::App& command = line.Add(
        "report", "Write charts and tables of the key figures as one HTML file, the only format",
        [pOptions](const Context& context) { return Report(context, *pOptions); });
    DescribeFleet(command);
    AddTimes(command, line.Values(), pOptions->since, pOptions->until,
             "Select only playbacks that began at or after this time, by the player's clock",
             "Select only playbacks that began before this time, by the player's clock");
    command.get_option("--local")->description(
        "Read times without an offset as local time; the report itself has times in UTC");
    command.get_option("--utc")->description("Read times without an offset as UTC; the default");
    command.add_option("--application", pOptions->application, "Select only this application");
    RefuseEmpty(*command.add_option("-o,--output", pOptions->output,
                                    "Write to this file; - for standard output"))
        .required();
    AddMode(command, pOptions->mode);
}
