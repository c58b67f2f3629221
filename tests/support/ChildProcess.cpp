// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildProcess.h"

#include "Eventually.h"
#include "Proc.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace {

constexpr int kCannotExecute = 127;
constexpr int kKilledBySignal = 128;

void Redirect(int nFd, const std::filesystem::path& file, int nFlags) {
    constexpr mode_t kMode = 0600;
    if (!file.empty() && dup2(open(file.c_str(), nFlags | O_CLOEXEC, kMode), nFd) < 0) {
        _exit(kCannotExecute);
    }
}

// Runs between fork and exec in a process that may have had other threads, so it only makes calls
// that are safe in a signal handler.
[[noreturn]] void BecomeProgram(char* const* pArguments, const ChildOptions& options,
                                pid_t nParent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The parent may have ended before the request took effect.
    if (getppid() != nParent) {
        _exit(kCannotExecute);
    }
    for (const int nFd : options.keepFds) {
        fcntl(nFd, F_SETFD, 0);
    }
    Redirect(STDIN_FILENO, options.input, O_RDONLY);
    Redirect(STDOUT_FILENO, options.output, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
    Redirect(STDERR_FILENO, options.error, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(pArguments[0], pArguments);
    _exit(kCannotExecute);
}

}  // namespace

void PauseProcess(pid_t pid) {
    kill(pid, SIGSTOP);
    Eventually([pid] {
        const char state = ReadProcStat(pid).state;
        return state == 'T' || state == 0 || state == 'Z';
    });
}

CChildProcess::CChildProcess(std::vector<std::string> arguments, const ChildOptions& options) {
    if (!options.environment.empty()) {
        arguments.insert(arguments.begin(), options.environment.begin(), options.environment.end());
        arguments.insert(arguments.begin(), "env");
    }
    // Prepared before fork, since a forked child of a process with several threads may not
    // allocate.
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    const pid_t nParent = getpid();
    m_nPid = fork();
    if (m_nPid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (m_nPid == 0) {
        BecomeProgram(pointers.data(), options, nParent);
    }
}

void CChildProcess::Signal(int nSignal) const {
    // After waitpid the kernel may give the same number to another process.
    if (!m_exitCode) {
        kill(m_nPid, nSignal);
    }
}

void CChildProcess::Pause() const {
    if (!m_exitCode) {
        PauseProcess(m_nPid);
    }
}

bool CChildProcess::Reap(int nOptions) {
    int nStatus = 0;
    if (!m_exitCode && waitpid(m_nPid, &nStatus, nOptions) == m_nPid) {
        m_exitCode =
            WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : kKilledBySignal + WTERMSIG(nStatus);
    }
    return m_exitCode.has_value();
}

std::optional<int> CChildProcess::WaitForExit(std::chrono::milliseconds within) {
    Eventually([this] { return Reap(WNOHANG); }, within);
    return m_exitCode;
}

void CChildProcess::Kill() {
    Signal(SIGKILL);
    while (!Reap(0)) {
    }
}
