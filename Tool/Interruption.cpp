// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Interruption.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace {

sigset_t Signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

}  // namespace

CInterruption::CInterruption() {
    const sigset_t signals = Signals();
    m_nSignals = signalfd(-1, &signals, SFD_CLOEXEC);
    if (m_nSignals < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

CInterruption::~CInterruption() {
    // Consumes pending signals, because unblocking them would kill the process.
    pollfd waited = {m_nSignals, POLLIN, 0};
    signalfd_siginfo taken{};
    while (poll(&waited, 1, 0) > 0 && read(m_nSignals, &taken, sizeof(taken)) > 0) {
    }
    close(m_nSignals);
    const sigset_t signals = Signals();
    sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

bool CInterruption::Wait(int milliseconds) const {
    // poll() reports POLLERR for a pipe without a reader even if no event is requested.
    pollfd waited[] = {{m_nSignals, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    if (poll(waited, 2, milliseconds) <= 0) {
        return false;
    }
    if (waited[0].revents == 0) {
        std::raise(SIGPIPE);
    }
    return true;
}
