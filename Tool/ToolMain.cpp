// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Completion.h"
#include "Options.h"
#include "TYStorePath.h"
#include "TYWallClock.h"
#include "UsageErrors.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

namespace {

Sink SinkOfOutput() {
    if (isatty(STDOUT_FILENO) == 0) {
        return Sink::PROGRAM;
    }
    return std::getenv("NO_COLOR") == nullptr ? Sink::COLOURS : Sink::TERMINAL;
}

int Run(const CCommandLine& line) {
    try {
        const int status = line.Run();
        std::cout.flush();
        if (!std::cout.good()) {
            std::cerr << "tallyra: writing the output failed, it is incomplete\n";
            return EXIT_FAILED;
        }
        return status;
    } catch (const std::exception& error) {
        std::cerr << "tallyra: " << Printable(error.what()) << "\n";
        return EXIT_FAILED;
    }
}

}  // namespace

int main(int argc, char** argv) try {
    Context context{.db = ChooseStore(StorePathsToRead()),
                    .out = std::cout,
                    .errors = std::cerr,
                    .sink = SinkOfOutput(),
                    .now = WallClockNow()};
    CCommandLine line(context);
    line.App().set_version_flag("--version", TALLYRA_VERSION);
    AddReaders(line);
    AddPolicy(line);
    AddForget(line);
    AddExport(line);
    AddKpi(line);
    AddReport(line);
    const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    if (IsCompletion(arguments)) {
        Complete(line, arguments);
        return EXIT_OK;
    }
    ForbidFlagValues(line.App());
    try {
        std::vector<std::string> words = SplitEmptyValues(arguments);
        // The parser takes the last one first.
        std::reverse(words.begin(), words.end());
        line.App().parse(std::move(words));
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return line.App().exit(error);
        }
        PrintUsageError(line.App(), error, std::cerr);
        return EXIT_USAGE;
    }
    return Run(line);
} catch (const std::exception& error) {
    std::cerr << "tallyra: " << Printable(error.what()) << "\n";
    return EXIT_FAILED;
}
