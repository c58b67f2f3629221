// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "logsvc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>

using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

/// Logs one line of each priority in a process of its own, since the settings are read once.
/// @return what came on standard error
std::string LogWith(const char* level) {
    std::array<int, 2> pipe;
    if (::pipe(pipe.data()) != 0) {
        return "no pipe";
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(pipe[1], STDERR_FILENO);
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        level != nullptr ? setenv("LOGSVC_LEVEL", level, 1) : unsetenv("LOGSVC_LEVEL");
        errno = ENOENT;
        logsvc_print(LOGSVC_MAIN, LOGSVC_DEBUG, "TAG", "debug %d", 1);
        logsvc_print(LOGSVC_MAIN, LOGSVC_INFO, "TAG", "info %s", "two");
        logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "error\n");
        _exit(errno == ENOENT ? 0 : 1);
    }
    close(pipe[1]);
    std::string text;
    std::array<char, 512> part;
    for (ssize_t n = 0; (n = read(pipe[0], part.data(), part.size())) > 0;) {
        text.append(part.data(), static_cast<std::size_t>(n));
    }
    close(pipe[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? text : "errno was changed: " + text;
}

constexpr const char* kTime = "[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+\\.[0-9]+ ";
const std::string DEBUG_LINE = std::string(kTime) + "D/TAG: debug 1\n";
const std::string INFO_LINE = std::string(kTime) + "I/TAG: info two\n";
const std::string ERROR_LINE = std::string(kTime) + "E/TAG: error\n";

TEST(Logsvc, LineHasTimePriorityTagAndText) {
    EXPECT_THAT(LogWith("debug"), MatchesRegex(DEBUG_LINE + INFO_LINE + ERROR_LINE));
}

TEST(Logsvc, LevelIsInfoUnlessSaidOtherwise) {
    EXPECT_THAT(LogWith(nullptr), MatchesRegex(INFO_LINE + ERROR_LINE));
    EXPECT_THAT(LogWith("info"), MatchesRegex(INFO_LINE + ERROR_LINE));
}

TEST(Logsvc, LevelErrorKeepsErrorsOnly) {
    EXPECT_THAT(LogWith("error"), MatchesRegex(ERROR_LINE));
}

TEST(Logsvc, LevelOffKeepsNothing) {
    EXPECT_THAT(LogWith("off"), IsEmpty());
}

}  // namespace
