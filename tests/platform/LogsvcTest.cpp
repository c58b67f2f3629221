// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "logsvc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

std::string ReadAll(const std::array<int, 2>& pipe, pid_t child) {
    close(pipe[1]);
    std::string text;
    std::array<char, 512> part;
    for (ssize_t n = 0; (n = read(pipe[0], part.data(), part.size())) > 0;) {
        text.append(part.data(), static_cast<std::size_t>(n));
    }
    close(pipe[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? text : "the writer failed: " + text;
}

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
    return ReadAll(pipe, child);
}

/// Gives this process a /run of its own with a journal's socket in it.
/// @return the socket, or -1 where the machine does not allow that
int StandInForTheJournal() {
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

/// Logs one line where a journal is, in a process of its own.
/// @return what the journal was sent, nothing where there can be none
std::string LogToJournal() {
    std::array<int, 2> pipe;
    if (::pipe(pipe.data()) != 0) {
        return "no pipe";
    }
    const pid_t child = fork();
    if (child == 0) {
        const int journal = StandInForTheJournal();
        std::array<char, 4096> datagram;
        unsetenv("LOGSVC_OUTPUT");
        unsetenv("LOGSVC_LEVEL");
        if (journal >= 0 && logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "error %d", 3) == 0) {
            const ssize_t n = recv(journal, datagram.data(), datagram.size(), MSG_DONTWAIT);
            _exit(write(pipe[1], datagram.data(), n > 0 ? static_cast<std::size_t>(n) : 0) != n);
        }
        _exit(journal >= 0 ? 1 : 0);
    }
    return ReadAll(pipe, child);
}

/// @return what waits at the journal's socket
std::string DrainJournal(int journal) {
    std::string text;
    std::array<char, 4096> datagram;
    for (ssize_t n = 0; (n = recv(journal, datagram.data(), datagram.size(), MSG_DONTWAIT)) > 0;) {
        text.append(datagram.data(), static_cast<std::size_t>(n));
    }
    return text;
}

/// Logs more than a journal takes that does not read, and once more when it has read.
/// @return 0 when lines were dropped and told, 1 when not, 2 where there can be no journal
int LogToFullJournal() {
    const int journal = StandInForTheJournal();
    if (journal < 0) {
        return 2;
    }
    alarm(20);
    unsetenv("LOGSVC_OUTPUT");
    int result = 0;
    for (int i = 0; i < 100000 && result == 0; ++i) {
        result = logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "text");
    }
    DrainJournal(journal);
    logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "last");
    const std::string told = DrainJournal(journal);
    return result == -EAGAIN && told.find("MESSAGE=1 lines dropped") < told.find("MESSAGE=last")
               ? 0
               : 1;
}

/// The compiler would refuse to see the format go missing at the call.
int PrintWithoutFormat(const char* pFormat = nullptr) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    return logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", pFormat, 0);
#pragma GCC diagnostic pop
}

constexpr const char* kTime = "[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+\\.[0-9]+ ";
const std::string kDebugLine = std::string(kTime) + "D/TAG: debug 1\n";
const std::string kInfoLine = std::string(kTime) + "I/TAG: info two\n";
const std::string kErrorLine = std::string(kTime) + "E/TAG: error\n";

TEST(Logsvc, LineHasTimePriorityTagAndText) {
    EXPECT_THAT(LogWith("debug"), MatchesRegex(kDebugLine + kInfoLine + kErrorLine));
}

TEST(Logsvc, LevelIsInfoUnlessSaidOtherwise) {
    EXPECT_THAT(LogWith(nullptr), MatchesRegex(kInfoLine + kErrorLine));
    EXPECT_THAT(LogWith("info"), MatchesRegex(kInfoLine + kErrorLine));
}

TEST(Logsvc, LevelErrorKeepsErrorsOnly) {
    EXPECT_THAT(LogWith("error"), MatchesRegex(kErrorLine));
}

TEST(Logsvc, LevelThatThereIsNotIsToldOnceAndCountsAsInfo) {
    EXPECT_THAT(LogWith("loud"), MatchesRegex("LOGSVC_LEVEL: there is no choice \"loud\"\n" +
                                              kInfoLine + kErrorLine));
}

TEST(Logsvc, WrongArgumentsAreRefused) {
    EXPECT_EQ(logsvc_print(7, LOGSVC_ERROR, "TAG", "text"), -EINVAL);
    EXPECT_EQ(logsvc_print(LOGSVC_MAIN, 99, "TAG", "text"), -EINVAL);
    EXPECT_EQ(PrintWithoutFormat(), -EINVAL);
}

TEST(Logsvc, MissingTagIsAnEmptyOne) {
    EXPECT_EXIT(_exit(logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, nullptr, "text") == 0 ? 0 : 1),
                testing::ExitedWithCode(0), "");
}

TEST(Logsvc, JournalThatIsThereGetsPriorityTagAndText) {
    const std::string sent = LogToJournal();
    if (sent.empty()) {
        GTEST_SKIP() << "no right to a mount namespace, and so no journal's socket of our own";
    }
    EXPECT_THAT(sent, AllOf(HasSubstr("PRIORITY=3\n"), HasSubstr("SYSLOG_IDENTIFIER=TAG\n"),
                            HasSubstr("MESSAGE=error 3\n")));
}

TEST(Logsvc, JournalThatDoesNotReadKeepsNobodyWaiting) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(LogToFullJournal());
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2) {
        GTEST_SKIP() << "no right to a mount namespace, and so no journal's socket of our own";
    }
    EXPECT_EQ(status, 0);
}

TEST(Logsvc, LevelOffKeepsNothing) {
    EXPECT_THAT(LogWith("off"), IsEmpty());
}

}  // namespace
