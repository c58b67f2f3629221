// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Logging to a standard error that takes no more: no caller blocks, and the host gets no signal.

#include "ChildScenario.h"
#include "HostDescriptors.h"
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
#include <regex>
#include <string>

namespace {

/// The two ends of a channel that standard error can be connected to.
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
    const int result = socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data());
    return result == 0 ? Ends{fds[0], fds[1]} : Ends{-1, -1};
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

int Log(const char* text) {
    return logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "%s", text);
}

class CLogsvcStderrTest : public testing::Test {
  protected:
    CLogsvcStderrTest() {
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        setenv("LOGSVC_LEVEL", "info", 1);
    }

    /// @return the reader's end, non-blocking
    static int ConnectStandardError(const Kind& kind) {
        signal(SIGPIPE, SIG_DFL);
        const Ends ends = kind.make();
        dup2(ends.writer, STDERR_FILENO);
        close(ends.writer);
        fcntl(ends.reader, F_SETFL, O_NONBLOCK);
        if (!kind.descriptorsLeft) {
            CHostDescriptors::RefuseMore();
        }
        return ends.reader;
    }

    /// @return all pending text
    static std::string Drain(int reader) {
        std::string text;
        std::array<char, 4096> part;
        for (ssize_t n = 0; (n = read(reader, part.data(), part.size())) > 0;) {
            text.append(part.data(), static_cast<std::size_t>(n));
        }
        return text;
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

class CEachStderrTest : public CLogsvcStderrTest, public testing::WithParamInterface<Kind> {};

TEST_P(CEachStderrTest, LinesThatNobodyReadsAreDroppedAndCounted) {
    if (kUnderUndefinedBehaviourSanitizer && !GetParam().descriptorsLeft) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    ExpectInNewProcess([] {
        const int reader = ConnectStandardError(GetParam());
        const bool dropped = LogUntilAnError() == -EAGAIN && Log("two") != 0 && Log("three") != 0;
        Drain(reader);
        const bool written = Log("last") == 0;
        const std::regex expected("[^\n]* E/LOGSVC: 3 lines dropped\r?\n[^\n]* E/TAG: last\r?\n");
        return dropped && written && std::regex_match(Drain(reader), expected);
    });
}

TEST_P(CEachStderrTest, ReaderThatHasExitedSendsNoSignal) {
    ExpectInNewProcess([] {
        close(ConnectStandardError(GetParam()));
        return Log("text") != 0 && !IsSigpipePending();
    });
}

TEST_P(CEachStderrTest, FlagsOfTheHostsDescriptorAreUnchanged) {
    ExpectInNewProcess([] {
        ConnectStandardError(GetParam());
        const int before = fcntl(STDERR_FILENO, F_GETFL);
        LogUntilAnError();
        return fcntl(STDERR_FILENO, F_GETFL) == before;
    });
}

INSTANTIATE_TEST_SUITE_P(Kinds, CEachStderrTest,
                         testing::Values(kPipe, Kind{"PipeWithoutDescriptors", &MakePipe, false},
                                         Kind{"Terminal", &MakeTerminal, true},
                                         Kind{"Socket", &MakeSocket, true}),
                         [](const auto& kind) { return std::string(kind.param.name); });

TEST_F(CLogsvcStderrTest, PendingSignalOfTheHostStaysPending) {
    ExpectInNewProcess([] {
        close(ConnectStandardError(kPipe));
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        raise(SIGPIPE);
        Log("text");
        return IsSigpipePending();
    });
}

TEST_F(CLogsvcStderrTest, FileAtItsSizeLimitSendsNoSignal) {
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
        ConnectStandardError(kPipe);
        bool logged = false;
        pthread_t thread{};
        pthread_create(&thread, nullptr, logAndTell, &logged);
        pthread_join(thread, nullptr);
        return logged;
    });
}

}  // namespace
