// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildProcess.h"

#include "Eventually.h"
#include "Proc.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <system_error>
#include <utility>

namespace {

constexpr int kCannotExecute = 127;
constexpr int kKilledBySignal = 128;

// argv and envp as execve takes them. Prepared before fork, since a forked child of a process with
// several threads may not allocate.
class CStrings {
  public:
    explicit CStrings(std::vector<std::string> strings) : m_Strings(std::move(strings)) {
        for (std::string& string : m_Strings) {
            m_Pointers.push_back(string.data());
        }
        m_Pointers.push_back(nullptr);
    }
    char* const* Get() const { return m_Pointers.data(); }

  private:
    std::vector<std::string> m_Strings;
    std::vector<char*> m_Pointers;
};

std::vector<std::string> EnvironmentWith(std::vector<std::string> variables) {
    const std::size_t count = variables.size();
    for (char** ppOne = environ; *ppOne != nullptr; ++ppOne) {
        const std::string own = *ppOne;
        const std::string prefix = own.substr(0, own.find('=') + 1);
        const auto end = variables.begin() + static_cast<std::ptrdiff_t>(count);
        if (std::none_of(variables.begin(), end,
                         [&](const std::string& one) { return one.starts_with(prefix); })) {
            variables.push_back(own);
        }
    }
    return variables;
}

void Redirect(int nFd, const std::filesystem::path& file, int nFlags) {
    constexpr mode_t kMode = 0600;
    if (!file.empty() && dup2(open(file.c_str(), nFlags | O_CLOEXEC, kMode), nFd) < 0) {
        _exit(kCannotExecute);
    }
}

// Runs between fork and exec in a process that may have had other threads, so it only makes calls
// that are safe in a signal handler.
[[noreturn]] void BecomeProgram(const CStrings& arguments, const CStrings& environment,
                                const ChildOptions& options, pid_t nParent) {
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
    execvpe(arguments.Get()[0], arguments.Get(), environment.Get());
    _exit(kCannotExecute);
}

int Reap(pid_t nPid) {
    int nStatus = 0;
    while (waitpid(nPid, &nStatus, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : kKilledBySignal + WTERMSIG(nStatus);
}

bool HasEnded(pid_t nPid) {
    siginfo_t ended{};
    return waitid(P_PID, static_cast<id_t>(nPid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == nPid;
}

}  // namespace

void PauseProcess(pid_t pid) {
    kill(pid, SIGSTOP);
    Eventually([pid] {
        const char state = ReadProcStat(pid).state;
        return state == 'T' || state == 0 || state == 'Z';
    });
}

CChildProcess::CChildProcess(const std::vector<std::string>& arguments,
                             const ChildOptions& options) {
    const CStrings argv(arguments);
    const CStrings envp(EnvironmentWith(options.environment));
    const pid_t nParent = getpid();
    m_nPid = fork();
    if (m_nPid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (m_nPid == 0) {
        BecomeProgram(argv, envp, options, nParent);
    }
}

CChildProcess::~CChildProcess() {
    Kill();
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

void CChildProcess::Resume() const {
    Signal(SIGCONT);
}

std::optional<int> CChildProcess::WaitForExit(std::chrono::milliseconds within) {
    if (!m_exitCode && Eventually([this] { return HasEnded(m_nPid); }, within)) {
        m_exitCode = Reap(m_nPid);
    }
    return m_exitCode;
}

void CChildProcess::Kill() {
    if (m_exitCode) {
        return;
    }
    Signal(SIGKILL);
    m_exitCode = Reap(m_nPid);
}
