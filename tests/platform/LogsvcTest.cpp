// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The settings of the log are read once per process, so each case logs in a new process.

#include "ChildScenario.h"
#include "HostDescriptors.h"
#include "Sanitizers.h"
#include "TemporaryFolder.h"

#include "logsvc.h"

#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <regex>

using testing::MatchesRegex;

namespace {

/// Logs one line of each priority to standard error in a forked child.
/// @return the child's standard error
std::string LogAtLevel(const char* level) {
    const Outcome outcome = RunForked([level] {
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        level != nullptr ? setenv("LOGSVC_LEVEL", level, 1) : unsetenv("LOGSVC_LEVEL");
        errno = ENOTTY;
        logsvc_print(LOGSVC_MAIN, LOGSVC_DEBUG, "TAG", "debug %d", 1);
        logsvc_print(LOGSVC_MAIN, LOGSVC_INFO, "TAG", "info %s", "two");
        logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "error\n");
        return errno == ENOTTY ? 0 : 1;
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
    if ((unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/run", "tmpfs", 0, nullptr) != 0) {
        return -1;
    }
    std::filesystem::create_directories("/run/systemd/journal");
    const int socketFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    return bind(socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0
               ? socketFd
               : -1;
}

/// @return all pending text of a non-blocking descriptor
std::string Drain(int reader) {
    std::string text;
    std::array<char, 4096> part;
    for (ssize_t n = 0; (n = read(reader, part.data(), part.size())) > 0;) {
        text.append(part.data(), static_cast<std::size_t>(n));
    }
    return text;
}

/// Expects a scenario to return true in a forked child with a journal, whose socket it gets.
template <class Scenario>
void ExpectWithJournal(Scenario scenario) {
    const Outcome outcome = RunForked([&] {
        const int journal = MakeJournal();
        unsetenv("LOGSVC_OUTPUT");
        unsetenv("LOGSVC_LEVEL");
        return journal < 0 ? kNoRight : scenario(journal) ? 0 : 1;
    });
    if (outcome.exitCode == kNoRight) {
        GTEST_SKIP() << "no right to mount, so no socket in place of the journal's";
    }
    EXPECT_EQ(outcome.exitCode, 0);
}

TEST(Logsvc, SendsPriorityTagAndTextToTheJournal) {
    ExpectWithJournal([](int journal) {
        logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "error %d", 3);
        const std::string sent = Drain(journal);
        const char* lines[] = {"PRIORITY=3\n", "SYSLOG_IDENTIFIER=TAG\n", "MESSAGE=error 3\n"};
        return std::ranges::all_of(
            lines, [&](const char* pLine) { return sent.find(pLine) != std::string::npos; });
    });
}

TEST(Logsvc, DropsAndCountsLinesWhenTheJournalDoesNotRead) {
    ExpectWithJournal([](int journal) {
        int result = 0;
        for (int i = 0; i < 100000 && result == 0; ++i) {
            result = logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "text");
        }
        Drain(journal);
        logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "last");
        const std::string sent = Drain(journal);
        return result == -EAGAIN &&
               sent.find("MESSAGE=1 lines dropped") < sent.find("MESSAGE=last");
    });
}

/// The two ends of a channel that standard error can be connected to: for reading and for writing.
using Ends = std::array<int, 2>;

Ends MakePipe() {
    Ends ends{};
    return pipe(ends.data()) == 0 ? ends : Ends{-1, -1};
}

Ends MakeSocket() {
    Ends ends{};
    return socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0 ? ends : Ends{-1, -1};
}

Ends MakeTerminal() {
    const int reader = posix_openpt(O_RDWR | O_NOCTTY);
    const bool made = grantpt(reader) == 0 && unlockpt(reader) == 0;
    return {reader, made ? open(ptsname(reader), O_RDWR | O_NOCTTY) : -1};
}

struct Kind {
    const char* name;
    Ends (*make)();
    bool descriptorsLeft;
};

const Kind kKinds[] = {{"a pipe", &MakePipe, true},
                       {"a pipe without descriptors", &MakePipe, false},
                       {"a terminal", &MakeTerminal, true},
                       {"a socket", &MakeSocket, true}};

int Log(const char* text) {
    return logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "%s", text);
}

/// A host whose standard error takes no more: no caller blocks, and the host gets no signal.
class CLogsvcStderrTest : public testing::Test {
  protected:
    CLogsvcStderrTest() {
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        setenv("LOGSVC_LEVEL", "info", 1);
    }

    /// @return the reader's end, non-blocking
    static int ConnectStandardError(const Kind& kind) {
        signal(SIGPIPE, SIG_DFL);
        const auto [reader, writer] = kind.make();
        dup2(writer, STDERR_FILENO);
        close(writer);
        fcntl(reader, F_SETFL, O_NONBLOCK);
        if (!kind.descriptorsLeft) {
            CHostDescriptors::RefuseMore();
        }
        return reader;
    }

    static bool IsSigpipePending() {
        sigset_t pending;
        sigpending(&pending);
        return sigismember(&pending, SIGPIPE) == 1;
    }

    /// Logs until a line fails. @return the error
    static int LogUntilAnError() {
        int result = 0;
        for (int i = 0; i < 100000 && result == 0; ++i) {
            result = Log("text");
        }
        return result;
    }
};

TEST_F(CLogsvcStderrTest, LinesThatNobodyReadsAreCountedAndFlagsAreUnchanged) {
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        if (kUnderUndefinedBehaviourSanitizer && !kind.descriptorsLeft) {
            continue;  // the sanitizer needs descriptors of its own
        }
        ExpectInNewProcess([&] {
            const int reader = ConnectStandardError(kind);
            const int flags = fcntl(STDERR_FILENO, F_GETFL);
            const bool dropped =
                LogUntilAnError() == -EAGAIN && Log("two") != 0 && Log("three") != 0;
            Drain(reader);
            const bool written = Log("last") == 0;
            const std::regex expected(
                "[^\n]* E/LOGSVC: 3 lines dropped\r?\n[^\n]* E/TAG: last\r?\n");
            return dropped && written && std::regex_match(Drain(reader), expected) &&
                   fcntl(STDERR_FILENO, F_GETFL) == flags;
        });
    }
}

TEST_F(CLogsvcStderrTest, ReaderThatHasExitedSendsNoSignal) {
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        ExpectInNewProcess([&] {
            close(ConnectStandardError(kind));
            return Log("text") != 0 && !IsSigpipePending();
        });
    }
}

TEST_F(CLogsvcStderrTest, PendingSignalOfTheHostStaysPending) {
    ExpectInNewProcess([] {
        close(ConnectStandardError(kKinds[0]));
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        raise(SIGPIPE);
        Log("text");
        return IsSigpipePending();
    });
}

TEST_F(CLogsvcStderrTest, HostMayLimitTheSizeOfItsLogFile) {
    const CTemporaryFolder folder;
    ExpectInNewProcess([&] {
        const int file = open((folder.Path() / "log").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
        dup2(file, STDERR_FILENO);
        std::fflush(stdout);
        const rlimit none{0, 0};
        setrlimit(RLIMIT_FSIZE, &none);
        return Log("text") == -EFBIG;
    });
}

TEST_F(CLogsvcStderrTest, LogCallIsNoCancellationPoint) {
    const auto logAndTell = [](void* pLogged) -> void* {
        pthread_cancel(pthread_self());
        Log("text");
        *static_cast<bool*>(pLogged) = true;
        pthread_testcancel();
        return nullptr;
    };
    ExpectInNewProcess([&] {
        ConnectStandardError(kKinds[0]);
        bool logged = false;
        pthread_t thread{};
        pthread_create(&thread, nullptr, logAndTell, &logged);
        pthread_join(thread, nullptr);
        return logged;
    });
}

}  // namespace
