// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Lines to a standard error that takes none: no caller waits, and no signal reaches the host.

#include "Sanitizers.h"
#include "TemporaryFolder.h"

#include "logsvc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <regex>
#include <string>

using testing::ExitedWithCode;

namespace {

constexpr unsigned kSecondsUntilACallHangs = 20;

/// Both ends of what standard error can be connected to.
struct Ends {
    int reader;
    int writer;
};

Ends MakePipe() {
    std::array<int, 2> fds{-1, -1};
    return pipe(fds.data()) == 0 ? Ends{fds[0], fds[1]} : Ends{-1, -1};
}

Ends MakeSocket() {
    std::array<int, 2> fds{-1, -1};
    return socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data()) == 0 ? Ends{fds[0], fds[1]}
                                                                : Ends{-1, -1};
}

Ends MakeTerminal() {
    const int reader = posix_openpt(O_RDWR | O_NOCTTY);
    if (reader < 0 || grantpt(reader) != 0 || unlockpt(reader) != 0) {
        return {-1, -1};
    }
    return {reader, open(ptsname(reader), O_RDWR | O_NOCTTY)};
}

struct Kind {
    const char* name;
    Ends (*make)();
    bool descriptorsLeft;
};

const Kind kPipe{"Pipe", &MakePipe, true};

void PrintTo(const Kind& kind, std::ostream* pOut) {
    *pOut << kind.name;
}

std::string NameOf(const testing::TestParamInfo<Kind>& kind) {
    return kind.param.name;
}

int Log(const char* text) {
    return logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "%s", text);
}

/// Runs each scenario in a process of its own, whose standard error is of one kind.
class CLogsvcHostTest : public testing::Test {
  protected:
    CLogsvcHostTest() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        setenv("LOGSVC_LEVEL", "info", 1);
    }

    /// @return the end that a reader of standard error has, which does not block
    static int ConnectStandardError(const Kind& kind) {
        alarm(kSecondsUntilACallHangs);
        signal(SIGPIPE, SIG_DFL);
        const Ends ends = kind.make();
        dup2(ends.writer, STDERR_FILENO);
        close(ends.writer);
        fcntl(ends.reader, F_SETFL, O_NONBLOCK);
        if (!kind.descriptorsLeft) {
            const rlimit none{3, 3};
            setrlimit(RLIMIT_NOFILE, &none);
        }
        return ends.reader;
    }

    /// @return what a reader finds
    static std::string Drain(int reader) {
        std::string text;
        std::array<char, 4096> part;
        for (ssize_t n = 0; (n = read(reader, part.data(), part.size())) > 0;) {
            text.append(part.data(), static_cast<std::size_t>(n));
        }
        return text;
    }

    /// Logs until a line is refused.
    static int LogUntilRefused() {
        int result = 0;
        for (int i = 0; i < 100000 && result == 0; ++i) {
            result = Log("text");
        }
        return result;
    }
};

class CLogsvcStderrTest : public CLogsvcHostTest, public testing::WithParamInterface<Kind> {};

TEST_P(CLogsvcStderrTest, LinesThatNobodyReadsAreDroppedAndCounted) {
    if (kUnderUndefinedBehaviourSanitizer && !GetParam().descriptorsLeft) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    const auto scenario = [] {
        const int reader = ConnectStandardError(GetParam());
        const bool dropped = LogUntilRefused() == -EAGAIN && Log("two") != 0 && Log("three") != 0;
        Drain(reader);
        const bool written = Log("last") == 0;
        const std::regex expected("[^\n]* E/LOGSVC: 3 lines dropped\r?\n[^\n]* E/TAG: last\r?\n");
        _exit(!dropped ? 1 : !written ? 2 : std::regex_match(Drain(reader), expected) ? 0 : 3);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_P(CLogsvcStderrTest, ReaderThatHasGoneSendsNoSignal) {
    const auto scenario = [] {
        close(ConnectStandardError(GetParam()));
        const bool refused = Log("text") != 0;
        sigset_t pending;
        sigpending(&pending);
        _exit(refused && sigismember(&pending, SIGPIPE) == 0 ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_P(CLogsvcStderrTest, FlagsOfTheHostsDescriptorStay) {
    const auto scenario = [] {
        ConnectStandardError(GetParam());
        const int before = fcntl(STDERR_FILENO, F_GETFL);
        LogUntilRefused();
        _exit(fcntl(STDERR_FILENO, F_GETFL) == before ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(Kinds, CLogsvcStderrTest,
                         testing::Values(kPipe, Kind{"PipeWithoutDescriptors", &MakePipe, false},
                                         Kind{"Terminal", &MakeTerminal, true},
                                         Kind{"Socket", &MakeSocket, true}),
                         &NameOf);

TEST_F(CLogsvcHostTest, SignalThatWasPendingBeforeStaysPending) {
    const auto scenario = [] {
        close(ConnectStandardError(kPipe));
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        raise(SIGPIPE);
        Log("text");
        sigset_t pending;
        sigpending(&pending);
        _exit(sigismember(&pending, SIGPIPE) == 1 ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CLogsvcHostTest, FileAtItsLimitSendsNoSignal) {
    const CTemporaryFolder folder;
    const auto scenario = [&] {
        const int file = open((folder.Path() / "log").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
        dup2(file, STDERR_FILENO);
        std::fflush(stdout);
        const rlimit none{0, 0};
        setrlimit(RLIMIT_FSIZE, &none);
        _exit(Log("text") == -EFBIG ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CLogsvcHostTest, CancelledThreadIsNotCancelledInALine) {
    const auto logAndTell = [](void* pLogged) -> void* {
        pthread_cancel(pthread_self());
        Log("text");
        *static_cast<bool*>(pLogged) = true;
        pthread_testcancel();
        return nullptr;
    };
    const auto scenario = [&] {
        ConnectStandardError(kPipe);
        bool logged = false;
        pthread_t thread{};
        pthread_create(&thread, nullptr, logAndTell, &logged);
        pthread_join(thread, nullptr);
        _exit(logged ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

}  // namespace
