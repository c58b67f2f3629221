// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <thread>

namespace {

using testing::HasSubstr;

// A little longer than operations that need no progress.
constexpr std::chrono::milliseconds kLong{1300};

// Counts two rows, waits as for a slow disk, and prints a line.
[[noreturn]] void Work(bool isShown) {
    {
        CProgress progress(std::cerr, "counting", isShown);
        progress.Count();
        progress.Count();
        std::this_thread::sleep_for(kLong);
    }
    std::cerr << "done" << std::flush;
    _exit(0);
}

// Returns what a terminal gets while it runs.
std::string OnTerminal(bool isShown) {
    // Otherwise the child prints what is buffered here.
    std::fflush(stdout);
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) {
        Work(isShown);
    }
    std::string output;
    std::array<char, 512> bytes;
    for (ssize_t got = 1; got > 0;) {
        got = read(terminal, bytes.data(), bytes.size());
        output.append(bytes.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    close(terminal);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return output;
}

TEST(Progress, IsShownOnATerminalAndErasedAtTheEnd) {
    const std::string output = OnTerminal(true);
    EXPECT_THAT(output, HasSubstr("\rcounting: 2, 1 s\x1b[K"));
    EXPECT_THAT(output, testing::EndsWith("\r\x1b[Kdone"));
}

TEST(Progress, IsNotShownBesideOutput) {
    EXPECT_EQ(OnTerminal(false), "done");
}

TEST(Progress, IsNotShownWithoutATerminal) {
    EXPECT_EXIT(Work(true), testing::ExitedWithCode(0), "^done$");
}

}  // namespace
