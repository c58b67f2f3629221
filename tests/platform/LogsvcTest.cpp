// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Format, levels and destinations. The settings are read once per process, so each case logs in a
// forked child.

#include "ChildScenario.h"

#include "logsvc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

/// Logs one line of each priority to standard error in a forked child.
/// @return the child's standard error
std::string LogAtLevel(const char* level) {
    const Outcome outcome = RunForked([level] {
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        level != nullptr ? setenv("LOGSVC_LEVEL", level, 1) : unsetenv("LOGSVC_LEVEL");
        errno = ENOENT;
        logsvc_print(LOGSVC_MAIN, LOGSVC_DEBUG, "TAG", "debug %d", 1);
        logsvc_print(LOGSVC_MAIN, LOGSVC_INFO, "TAG", "info %s", "two");
        logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "error\n");
        return errno == ENOENT ? 0 : 1;
    });
    return outcome.exitCode == 0 ? outcome.standardError : "errno has changed";
}

TEST(Logsvc, WritesLinesAtOrAboveTheLevel) {
    const std::string time = "[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+\\.[0-9]+ ";
    const std::string debug = time + "D/TAG: debug 1\n";
    const std::string info = time + "I/TAG: info two\n";
    const std::string error = time + "E/TAG: error\n";
    const struct {
        const char* level;
        std::string lines;
    } cases[] = {
        {"debug", debug + info + error},
        {"info", info + error},
        {nullptr, info + error},
        {"error", error},
        {"off", ""},
        {"loud", "LOGSVC_LEVEL: unknown value \"loud\"\n" + info + error},
    };
    for (const auto& [level, lines] : cases) {
        EXPECT_THAT(LogAtLevel(level), MatchesRegex(lines));
    }
}

/// Hides a null format from the compiler, which would refuse it.
int PrintWithoutFormat(const char* pFormat = nullptr) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    return logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", pFormat, 0);
#pragma GCC diagnostic pop
}

TEST(Logsvc, RejectsInvalidParametersButAMissingTag) {
    EXPECT_EQ(logsvc_print(7, LOGSVC_ERROR, "TAG", "text"), -EINVAL);
    EXPECT_EQ(logsvc_print(LOGSVC_MAIN, 99, "TAG", "text"), -EINVAL);
    EXPECT_EQ(PrintWithoutFormat(), -EINVAL);
    const auto logWithoutTag = [] {
        return logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, nullptr, "text");
    };
    EXPECT_EQ(RunForked(logWithoutTag).exitCode, 0);
}

constexpr int kNoRight = 2;

/// Gives this process a /run of its own with a journal's socket in it.
/// @return the socket, or -1 without the right to mount
int MakeJournal() {
    sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return -1;
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/run", "tmpfs", 0, nullptr) != 0 || mkdir("/run/systemd", 0755) != 0 ||
        mkdir("/run/systemd/journal", 0755) != 0) {
        return -1;
    }
    const int socketFd = socket(AF_UNIX, SOCK_DGRAM, 0);
    return bind(socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0
               ? socketFd
               : -1;
}

/// @return the pending datagrams of the journal's socket
std::string DrainJournal(int journal) {
    std::string text;
    std::array<char, 4096> datagram;
    for (ssize_t n = 0; (n = recv(journal, datagram.data(), datagram.size(), MSG_DONTWAIT)) > 0;) {
        text.append(datagram.data(), static_cast<std::size_t>(n));
    }
    return text;
}

/// Runs a test with a journal in a forked child. It gets the socket and returns an exit code.
template <class Function>
Outcome RunWithJournal(Function function) {
    return RunForked([&] {
        const int journal = MakeJournal();
        unsetenv("LOGSVC_OUTPUT");
        unsetenv("LOGSVC_LEVEL");
        return journal < 0 ? kNoRight : function(journal);
    });
}

TEST(Logsvc, SendsPriorityTagAndTextToTheJournal) {
    const Outcome outcome = RunWithJournal([](int journal) {
        const int result = logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "error %d", 3);
        const std::string sent = DrainJournal(journal);
        return write(STDERR_FILENO, sent.data(), sent.size()) > 0 ? result : 1;
    });
    if (outcome.exitCode == kNoRight) {
        GTEST_SKIP() << "no right to mount, so no socket in place of the journal's";
    }
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.standardError,
                AllOf(HasSubstr("PRIORITY=3\n"), HasSubstr("SYSLOG_IDENTIFIER=TAG\n"),
                      HasSubstr("MESSAGE=error 3\n")));
}

TEST(Logsvc, DropsAndCountsLinesWhenTheJournalDoesNotRead) {
    const Outcome outcome = RunWithJournal([](int journal) {
        int result = 0;
        for (int i = 0; i < 100000 && result == 0; ++i) {
            result = logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "text");
        }
        DrainJournal(journal);
        logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "last");
        const std::string sent = DrainJournal(journal);
        const bool told = sent.find("MESSAGE=1 lines dropped") < sent.find("MESSAGE=last");
        return result == -EAGAIN && told ? 0 : 1;
    });
    if (outcome.exitCode == kNoRight) {
        GTEST_SKIP() << "no right to mount, so no socket in place of the journal's";
    }
    EXPECT_EQ(outcome.exitCode, 0);
}

}  // namespace
