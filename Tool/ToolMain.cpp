// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"
#include "EventNames.h"
#include "TYStorePath.h"
#include "TYWallClock.h"
#include "TimeText.h"

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <charconv>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <system_error>

namespace {

constexpr std::int64_t kLargestUid = 4'294'967'294;
constexpr const char* kLimitHelp = "Select at most this many, the newest; -1 for all";

const std::map<std::string, Format> kRowFormats{
    {"table", Format::TABLE}, {"json", Format::JSON}, {"csv", Format::CSV}};
const std::map<std::string, Format> kExportFormats{{"jsonl", Format::JSONL}, {"csv", Format::CSV}};

/// The values of all commands' options.
struct Arguments {
    RecordsOptions records;
    Filter playbacks;
    ExportOptions exported;
    std::string playback;
    PolicyChange policy;
    ForgetOptions forgotten;
    std::string image = "-";
};

void AddFormat(CLI::App& app, Context& context) {
    app.add_option("--format", context.format, "Print as table, json or csv")
        ->transform(CLI::CheckedTransformer(kRowFormats, CLI::ignore_case).description("TEXT"));
}

void AddTime(CLI::App& app, const char* pName, std::optional<std::int64_t>& time, std::int64_t now,
             const char* pText) {
    app.add_option_function<std::string>(
        pName,
        [&time, now, pName](const std::string& text) {
            time = ParseTime(text, now);
            if (!time) {
                throw CLI::ValidationError(pName, "not a time: " + text);
            }
        },
        pText);
}

CLI::App& AddCommand(CLI::App& app, Context& context, const char* pName, const char* pText) {
    CLI::App& command = *app.add_subcommand(pName, pText);
    command.add_option("--db", context.db, "Use this database of tallyra-service")
        ->capture_default_str();
    return command;
}

void AddReaders(CLI::App& app, Context& context, Arguments& arguments) {
    CLI::App& records = AddCommand(app, context, "records", "Print records, oldest first");
    arguments.records.filter.limit = 100;
    arguments.records.filter.AddAll(records, context.now);
    records.add_flag("--follow", arguments.records.follow,
                     "Keep printing new records until interrupted");
    records
        .add_flag("--raw", arguments.records.raw,
                  "Write the raw 4800-byte images, which the command decode reads")
        ->excludes("--follow");
    AddFormat(records, context);
    CLI::App& playbacks =
        AddCommand(app, context, "playbacks", "Print playbacks with their totals, newest first");
    arguments.playbacks.limit = 100;
    arguments.playbacks.AddTimes(playbacks, context.now);
    playbacks.add_option("--application", arguments.playbacks.application,
                         "Select only this application");
    playbacks.add_option("--limit", arguments.playbacks.limit, kLimitHelp)->capture_default_str();
    AddFormat(playbacks, context);
    CLI::App& show =
        AddCommand(app, context, "show", "Print all records of a playback as a timeline");
    show.add_option("playback", arguments.playback,
                    "Identifier of the playback, as the command playbacks prints it")
        ->required();
    AddFormat(show, context);
    AddFormat(AddCommand(app, context, "stats",
                         "Print totals and the number of records known to be lost"),
              context);
    AddFormat(AddCommand(app, context, "status",
                         "Print what the store holds, for whom, and what was lost in the last day"),
              context);
    AddCommand(app, context, "check", "Check the store for damage; exit with 1 if there is any");
    CLI::App& decode = AddCommand(app, context, "decode", "Print records from raw images");
    decode.add_option("file", arguments.image,
                      "Read raw images from this file; - for standard input");
    AddFormat(decode, context);
}

CLI::App& AddPolicyCommand(CLI::App& policy, Context& context, Arguments& arguments,
                           const char* pName, const char* pText) {
    CLI::App& command = AddCommand(policy, context, pName, pText);
    command
        .add_option("application", arguments.policy.application,
                    "Application identifier; * for all others")
        ->required();
    return command;
}

CLI::Option& AddUsers(CLI::App& app, Arguments& arguments, const char* pText) {
    return *app.add_option("uid", arguments.policy.uids, pText)
                ->check(CLI::Range(std::int64_t{0}, kLargestUid).description("NUMBER"));
}

void AddSetPolicy(CLI::App& policy, Context& context, Arguments& arguments) {
    PolicyChange& change = arguments.policy;
    CLI::App& set =
        AddPolicyCommand(policy, context, arguments, "set", "Set the policy of an application");
    set.add_option("value", change.value, "0 refuses collection, any other number allows it");
    CLI::Option& keep = *set.add_flag_callback(
        "--keep-queries", [&change] { change.keepQueries = 1; },
        "Store this application's URLs as sent");
    set.add_flag_callback(
           "--no-keep-queries", [&change] { change.keepQueries = 0; },
           "Replace user information and values of query parameters, as by default")
        ->excludes(&keep);
    set.callback([&change] {
        if (!change.value && !change.keepQueries) {
            throw CLI::RequiredError("a value, --keep-queries or --no-keep-queries");
        }
    });
}

void AddPolicy(CLI::App& app, Context& context, Arguments& arguments) {
    CLI::App& policy =
        *app.add_subcommand("policy", "Say which applications are collected, from whom, and how");
    policy.require_subcommand(1);
    AddFormat(AddCommand(policy, context, "list", "Print all policies and bindings"), context);
    AddSetPolicy(policy, context, arguments);
    AddPolicyCommand(policy, context, arguments, "unset",
                     "Remove the policy and the bindings of an application");
    CLI::App& bind = AddPolicyCommand(policy, context, arguments, "bind",
                                      "Accept an application from these users, besides those that "
                                      "it is bound to, and from no other");
    AddUsers(bind, arguments, "Numeric user ids").required();
    CLI::App& unbind =
        AddPolicyCommand(policy, context, arguments, "unbind", "Remove bindings of an application");
    AddUsers(unbind, arguments, "Numeric user ids; without any, all");
}

void CheckSelection(const ForgetOptions& options) {
    const int selections = int{options.application.has_value()} +
                           int{options.playback.has_value()} + int{options.uid.has_value()} +
                           int{options.before.has_value()} + int{options.all};
    if (selections != 1) {
        throw CLI::ValidationError(
            "forget", "exactly one of --application, --playback, --uid, --before, --all is needed");
    }
}

void AddForget(CLI::App& app, Context& context, Arguments& arguments) {
    ForgetOptions& options = arguments.forgotten;
    CLI::App& forget = AddCommand(app, context, "forget", "Delete records for good");
    forget.add_option("--application", options.application, "Delete those of this application");
    forget.add_option("--playback", options.playback, "Delete those of this playback");
    forget.add_option("--uid", options.uid, "Delete what this user sent; -1: an unknown user")
        ->check(CLI::Range(std::int64_t{-1}, kLargestUid).description("NUMBER"));
    AddTime(forget, "--before", options.before, context.now,
            "Delete what arrived before this time");
    forget.add_flag("--all", options.all, "Delete all records");
    forget.add_flag("--vacuum", options.vacuum,
                    "Also rewrite the whole file; the service cannot store records meanwhile");
    forget.add_flag("--yes", options.yes, "Do not ask for confirmation");
    forget.callback([&options] { CheckSelection(options); });
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

void AddExport(CLI::App& app, Context& context, Arguments& arguments) {
    CLI::App& command =
        AddCommand(app, context, "export", "Write records as JSON lines or CSV, for other systems");
    arguments.exported.filter.AddAll(command, context.now);
    command.add_option("--output", arguments.exported.output,
                       "Write to this file; - for standard output");
    command.add_option_function<std::string>(
        "--mode",
        [&arguments](const std::string& text) { arguments.exported.mode = ParseMode(text); },
        "Give the file these permissions, in octal; 0600 unless an existing file has others");
    command
        .add_option_function<Format>(
            "--format", [&context](Format format) { context.format = format; },
            "Write as jsonl (one object per line) or csv")
        ->transform(CLI::CheckedTransformer(kExportFormats, CLI::ignore_case).description("TEXT"));
}

Sink SinkOfOutput() {
    if (isatty(STDOUT_FILENO) == 0) {
        return Sink::PROGRAM;
    }
    return std::getenv("NO_COLOR") == nullptr ? Sink::COLOURS : Sink::TERMINAL;
}

int RunPolicy(const CLI::App& policy, const Context& context, const Arguments& arguments) {
    const std::string name = policy.get_subcommands().front()->get_name();
    if (name == "list") {
        return ListPolicies(context);
    }
    if (name == "set") {
        return SetPolicy(context, arguments.policy);
    }
    if (name == "unset") {
        return UnsetPolicy(context, arguments.policy.application);
    }
    return name == "bind" ? BindApplication(context, arguments.policy)
                          : UnbindApplication(context, arguments.policy);
}

int RunExport(Context context, const Arguments& arguments) {
    context.format = context.format == Format::TABLE ? Format::JSONL : context.format;
    return Export(context, arguments.exported);
}

int RunCommand(const CLI::App& app, const Context& context, const Arguments& arguments) {
    const std::string name = app.get_subcommands().front()->get_name();
    if (name == "records") {
        return PrintRecords(context, arguments.records);
    }
    if (name == "playbacks") {
        return PrintPlaybacks(context, arguments.playbacks);
    }
    if (name == "show") {
        return ShowPlayback(context, arguments.playback);
    }
    if (name == "stats") {
        return PrintStats(context);
    }
    if (name == "status") {
        return PrintStatus(context);
    }
    if (name == "check") {
        return Check(context);
    }
    if (name == "forget") {
        return Forget(context, arguments.forgotten);
    }
    if (name == "decode") {
        return Decode(context, arguments.image);
    }
    return name == "export" ? RunExport(context, arguments)
                            : RunPolicy(*app.get_subcommands().front(), context, arguments);
}

int Run(const CLI::App& app, const Context& context, const Arguments& arguments) {
    try {
        const int status = RunCommand(app, context, arguments);
        std::cout.flush();
        if (!std::cout.good()) {
            std::cerr << "tallyra: writing the output failed, it is incomplete\n";
            return EXIT_FAILED;
        }
        return status;
    } catch (const std::exception& error) {
        std::cerr << "tallyra: " << error.what() << "\n";
        return EXIT_FAILED;
    }
}

}  // namespace

void Filter::AddTimes(CLI::App& app, std::int64_t now) {
    AddTime(app, "--since", since, now,
            "Select only what arrived at or after this time: 2026-11-21T07:30, @SECONDS, or an "
            "age such as 2h");
    AddTime(app, "--until", until, now, "Select only what arrived before this time");
}

void Filter::AddAll(CLI::App& app, std::int64_t now) {
    AddTimes(app, now);
    app.add_option("--application", application, "Select only this application");
    app.add_option("--playback", playback, "Select only this playback");
    app.add_option("--limit", limit, kLimitHelp)->capture_default_str();
    app.add_option_function<std::string>(
        "--code",
        [this](const std::string& text) {
            code = EventCode(text);
            if (!code) {
                throw CLI::ValidationError("--code", "not an event: " + text);
            }
        },
        "Select only this event: a code, or a name such as BUFFERING_START");
}

int main(int argc, char** argv) try {
    Context context{DefaultStorePath(), Format::TABLE,  std::cout,
                    std::cerr,          SinkOfOutput(), WallClockNow()};
    Arguments arguments;
    CLI::App app(
        "Prints, exports and deletes the records that tallyra-service has stored, and sets "
        "policies.",
        "tallyra");
    app.set_version_flag("--version", TALLYRA_VERSION);
    app.require_subcommand(1);
    AddReaders(app, context, arguments);
    AddPolicy(app, context, arguments);
    AddForget(app, context, arguments);
    AddExport(app, context, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE;
    }
    return Run(app, context, arguments);
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra: %s\n", error.what());
    return EXIT_FAILED;
}
