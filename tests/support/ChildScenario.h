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
    std::array<int, 2> fds{-1, -1};
    if (pipe(fds.data()) != 0) {
        return {-1, "no pipe"};
    }
    const pid_t child = fork();
    if (child == 0) {
        alarm(kSecondsUntilACallHangs);
        dup2(fds[1], STDERR_FILENO);
        _exit(function());
    }
    close(fds[1]);
    Outcome outcome{-1, ""};
    std::array<char, 512> part;
    for (ssize_t n = 0; (n = read(fds[0], part.data(), part.size())) > 0;) {
        outcome.standardError.append(part.data(), static_cast<std::size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

#endif  // TALLYRA_TESTS_SUPPORT_CHILDSCENARIO_H
