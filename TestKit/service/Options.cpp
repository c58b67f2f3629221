// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <climits>
#include <string_view>

namespace {

void AddFlag(CLI::App& app, const char* pName, bool& value, const char* pHelp) {
    app.add_flag(pName, value, pHelp)->disable_flag_override();
}

void AddMisbehaviours(CLI::App& app, Misbehaviours& what) {
    app.add_option("--slow", what.slowMs, "Reply after this many milliseconds")
        ->type_name("MS")
        ->check(CLI::Range(0, INT_MAX).description(""));
    AddFlag(app, "--refuse", what.refuse, "Refuse batches");
    AddFlag(app, "--malformed", what.malformed, "Reply with values that make no sense");
    AddFlag(app, "--silent", what.silent, "Do not reply");
    AddFlag(app, "--gone", what.gone, "Leave the bus without a reply");
    app.add_option("--after", what.after, "Answer this many batches as usual before")
        ->type_name("N")
        ->check(CLI::Range(0, INT_MAX).description(""));
    const auto setCalls = [&what](const std::string& name) {
        what.on = name == "policy" ? Calls::POLICY : name == "all" ? Calls::ALL : Calls::BATCHES;
    };
    app.add_option_function<std::string>("--on", setCalls,
                                         "Misbehave on these calls: batches (default), policy, or "
                                         "all")
        ->type_name("CALLS")
        ->check(CLI::IsMember({"batches", "policy", "all"}).description(""));
    app.add_option("--refuse-application", what.refusedApplications,
                   "Refuse collection for this application, * for all; may be repeated")
        ->type_name("ID")
        ->expected(1)
        ->take_all();
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& status) {
    Options options;
    std::string program;
    CLI::App app(
        "Receives playback records from media players on a bus of its own and writes them "
        "as JSON lines.",
        "tallyra-testservice");
    app.set_version_flag("--version", TALLYRA_VERSION);
    app.add_option("--output", options.output,
                   "Write records to this file; - (default) is standard output")
        ->type_name("FILE");
    CLI::Option* pTimeout = app.add_option("--timeout", options.timeoutSeconds,
                                           "End the program after this many seconds, with exit "
                                           "code 124");
    pTimeout->type_name("S")->check(CLI::Range(1, INT_MAX / 1000).description(""));
    AddFlag(app, "--platform", options.platform,
            "Preload libtallyra-testplatform.so into the program, with collection switched on");
    AddMisbehaviours(app, options.misbehaviours);
    CLI::Option* pProgram = app.add_option(
        "--run", program,
        "Run this program on the bus, and exit with its exit code. The last option: what follows "
        "are the program's own arguments");
    pProgram->type_name("PROGRAM [ARGUMENT]...");
    pTimeout->needs(pProgram);
    char** const pEnd = argv + argc;
    char** pRun = std::find(argv, pEnd, std::string_view("--run"));
    char** pArguments = pEnd - pRun > 1 ? pRun + 2 : pEnd;
    try {
        app.parse(static_cast<int>(pArguments - argv), argv);
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? 0 : kExitFailed;
        return std::nullopt;
    }
    if (!program.empty()) {
        options.command.assign(pArguments, pEnd);
        options.command.insert(options.command.begin(), program);
    }
    return options;
}
