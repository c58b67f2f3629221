// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kCannotExecute = 127;
constexpr int kKilledBySignal = 128;

// Runs between fork and exec in a process that may have had other threads, so it only makes calls
// that are safe in a signal handler.
[[noreturn]] void BecomeProgram(char* const* ppArguments, const std::vector<int>& keepFds,
                                pid_t nParent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The parent may have gone before the request took effect.
    if (getppid() != nParent) {
        _exit(kCannotExecute);
    }
    for (const int nFd : keepFds) {
        fcntl(nFd, F_SETFD, 0);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(ppArguments[0], ppArguments);
    _exit(kCannotExecute);
}

std::vector<char*> ToArgv(std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& strArgument : arguments) {
        argv.push_back(strArgument.data());
    }
    argv.push_back(nullptr);
    return argv;
}

int ToExitCode(int nStatus) {
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : kKilledBySignal + WTERMSIG(nStatus);
}

bool PollUntil(int nFd, Clock::time_point deadline) {
    pollfd waited = {nFd, POLLIN, 0};
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int nReady = poll(&waited, 1, left > 0 ? static_cast<int>(left) : 0);
        if (nReady > 0) {
            return true;
        }
        if (nReady == 0 && Clock::now() >= deadline) {
            return false;
        }
        if (nReady < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "poll");
        }
    }
}

// For where there are no descriptors of processes.
bool LookUntil(pid_t nPid, Clock::time_point deadline) {
    for (;;) {
        siginfo_t ended{};
        if (waitid(P_PID, static_cast<id_t>(nPid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            ended.si_pid == nPid) {
            return true;
        }
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace

CChildProcess::CChildProcess(const std::vector<std::string>& arguments,
                             const std::vector<int>& keepFds) {
    std::vector<std::string> copies = arguments;
    const std::vector<char*> argv = ToArgv(copies);
    const pid_t nParent = getpid();
    m_nPid = fork();
    if (m_nPid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (m_nPid == 0) {
        BecomeProgram(argv.data(), keepFds, nParent);
    }
    // The C library's header for this call cannot be used from C++ everywhere. Valgrind has no such
    // call.
    m_nPidFd = static_cast<int>(syscall(SYS_pidfd_open, m_nPid, 0));
    if (m_nPidFd < 0 && errno != ENOSYS) {
        const int nError = errno;
        Kill();
        throw std::system_error(nError, std::generic_category(), "pidfd_open");
    }
}

CChildProcess::~CChildProcess() {
    Kill();
    if (m_nPidFd >= 0) {
        close(m_nPidFd);
    }
}

void CChildProcess::Signal(int nSignal) const {
    // A process that was waited for has given its number back: it may be another one's by now.
    if (!m_exitCode) {
        kill(m_nPid, nSignal);
    }
}

std::optional<int> CChildProcess::WaitForExit(std::chrono::milliseconds within) {
    const Clock::time_point deadline = Clock::now() + within;
    if (!m_exitCode &&
        (m_nPidFd >= 0 ? PollUntil(m_nPidFd, deadline) : LookUntil(m_nPid, deadline))) {
        int nStatus = 0;
        while (waitpid(m_nPid, &nStatus, 0) < 0 && errno == EINTR) {
        }
        m_exitCode = ToExitCode(nStatus);
    }
    return m_exitCode;
}

void CChildProcess::Kill() {
    if (m_exitCode) {
        return;
    }
    Signal(SIGKILL);
    int nStatus = 0;
    while (waitpid(m_nPid, &nStatus, 0) < 0 && errno == EINTR) {
    }
    m_exitCode = ToExitCode(nStatus);
}
