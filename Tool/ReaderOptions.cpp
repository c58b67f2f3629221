// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Options.h"

#include <charconv>
#include <map>
#include <memory>
#include <string>
#include <system_error>

// The options of the commands that only read.

namespace {

constexpr std::int64_t kRowsUnlessTold = 100;

const std::map<std::string, Format> kExportFormats{{"jsonl", Format::JSONL}, {"csv", Format::CSV}};

void AddRecords(CCommandLine& line) {
    const auto pOptions = std::make_shared<RecordsOptions>();
    CLI::App& command =
        line.Add("records", "Print records, oldest first",
                 [pOptions](const Context& context) { return PrintRecords(context, *pOptions); });
    pOptions->filter.limit = kRowsUnlessTold;
    pOptions->filter.AddAll(command, line.Values().now);
    command.add_flag("--follow", pOptions->follow, "Keep printing new records until interrupted");
    command
        .add_flag("--raw", pOptions->raw,
                  "Write the raw 4800-byte images, which the command decode reads")
        ->excludes("--follow");
    AddFormat(command, line.Values());
}

void AddPlaybacks(CCommandLine& line) {
    const auto pFilter = std::make_shared<Filter>();
    CLI::App& command =
        line.Add("playbacks", "Print playbacks with their totals, newest first",
                 [pFilter](const Context& context) { return PrintPlaybacks(context, *pFilter); });
    pFilter->limit = kRowsUnlessTold;
    pFilter->AddTimes(command, line.Values().now);
    command.add_option("--application", pFilter->application, "Select only this application");
    AddLimit(command, *pFilter);
    AddFormat(command, line.Values());
}

void AddShow(CCommandLine& line) {
    const auto pPlayback = std::make_shared<std::string>();
    CLI::App& command =
        line.Add("show", "Print all records of a playback as a timeline",
                 [pPlayback](const Context& context) { return ShowPlayback(context, *pPlayback); });
    command
        .add_option("playback", *pPlayback,
                    "Identifier of the playback, as the command playbacks prints it")
        ->required();
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

int RunExport(Context context, const ExportOptions& options) {
    context.format = context.format == Format::TABLE ? Format::JSONL : context.format;
    return Export(context, options);
}

}  // namespace

void AddReaders(CCommandLine& line) {
    AddRecords(line);
    AddPlaybacks(line);
    AddShow(line);
    AddFormat(
        line.Add("stats", "Print totals and the number of records known to be lost", &PrintStats),
        line.Values());
    AddFormat(line.Add("status",
                       "Print what the store holds, for whom, and what was lost in the last day",
                       &PrintStatus),
              line.Values());
    line.Add("check", "Check the store for damage; exit with 1 if there is any", &Check);
    AddDecode(line);
}

void AddExport(CCommandLine& line) {
    const auto pOptions = std::make_shared<ExportOptions>();
    CLI::App& command =
        line.Add("export", "Write records as JSON lines or CSV, for other systems",
                 [pOptions](const Context& context) { return RunExport(context, *pOptions); });
    pOptions->filter.AddAll(command, line.Values().now);
    command.add_option("--output", pOptions->output, "Write to this file; - for standard output");
    command.add_option_function<std::string>(
        "--mode", [pOptions](const std::string& text) { pOptions->mode = ParseMode(text); },
        "Give the file these permissions, in octal; 0600 unless an existing file has others");
    command
        .add_option_function<Format>(
            "--format", [&line](Format format) { line.Values().format = format; },
            "Write as jsonl (one object per line) or csv")
        ->transform(CLI::CheckedTransformer(kExportFormats, CLI::ignore_case).description("TEXT"));
}
