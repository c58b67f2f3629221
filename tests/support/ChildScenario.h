// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_CHILDSCENARIO_H
#define TALLYRA_TESTS_SUPPORT_CHILDSCENARIO_H

#include "Test.h"

#include <sys/wait.h>

/// Kills a scenario whose call hangs.
constexpr unsigned kSecondsUntilACallHangs = 20;

/// Runs a scenario in a new process, and expects it to return true. The process executes the test
/// program again, up to this call, so it has its own fixture and no thread of this process.
template <class Scenario>
void ExpectInNewProcess(Scenario scenario, unsigned seconds = kSecondsUntilACallHangs) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto run = [&] {
        alarm(seconds);
        _exit(scenario() ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

/// What a forked child left behind.
struct Outcome {
    int exitCode;  ///< -1 when a signal killed it
    std::string standardError;
};

/// Runs a function in a forked child, which exits with its result.
template <class Function>
Outcome RunForked(Function function) {
    std::FILE* pErrors = std::tmpfile();
    const pid_t child = fork();
    if (child == 0) {
        alarm(kSecondsUntilACallHangs);
        dup2(fileno(pErrors), STDERR_FILENO);
        _exit(function());
    }
    int status = 0;
    waitpid(child, &status, 0);
    Outcome outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1, ""};
    std::rewind(pErrors);
    for (int byte = 0; (byte = std::fgetc(pErrors)) != EOF;) {
        outcome.standardError += static_cast<char>(byte);
    }
    std::fclose(pErrors);
    return outcome;
}

#endif  // TALLYRA_TESTS_SUPPORT_CHILDSCENARIO_H
