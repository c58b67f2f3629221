// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Interruption.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>

// Problem: a clean end needs the process to look whether a signal has arrived. It cannot while it
// writes to a pipe that nobody reads, or reads a large store.
//
// Idea: the handler wakes Wait() through a descriptor, and sets an alarm. The process then has
// kGraceSeconds for its end, or dies from the signal, wherever it is. A second signal kills it at
// once.

namespace {

constexpr unsigned kGraceSeconds = 1;
constexpr std::array<int, 2> kSignals{SIGINT, SIGTERM};

// Written by the handlers, which may run at any point of the program.
volatile std::sig_atomic_t g_nWakeUp = -1;
volatile std::sig_atomic_t g_nSignal = 0;  // the first; 0 before

// SA_RESETHAND has restored the default actions of signals when their handlers run.
void OnSignal(int signal) {
    if (g_nSignal != 0) {
        std::raise(signal);
        return;
    }
    const int error = errno;
    const std::uint64_t one = 1;
    // Fails only if the counter is full, and then Wait() returns as well.
    [[maybe_unused]] const ssize_t written = write(g_nWakeUp, &one, sizeof(one));
    g_nSignal = signal;
    alarm(kGraceSeconds);
    errno = error;
}

void OnAlarm(int /*signal*/) {
    std::raise(g_nSignal);
}

void Handle(int signal, void (*pHandler)(int)) {
    struct sigaction action {};
    action.sa_handler = pHandler;
    // SA_RESTART: until the alarm, an interrupted write goes on, so that no output is lost.
    action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
    sigaction(signal, &action, nullptr);
}

}  // namespace

CInterruption::CInterruption() : m_nWakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (m_nWakeUp < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    g_nWakeUp = m_nWakeUp;
    Handle(SIGALRM, &OnAlarm);
    for (const int signal : kSignals) {
        Handle(signal, &OnSignal);
    }
}

CInterruption::~CInterruption() {
    // The alarm stays: main() still flushes the output.
    for (const int signal : kSignals) {
        std::signal(signal, SIG_DFL);
    }
    close(m_nWakeUp);
}

bool CInterruption::Wait(int milliseconds) const {
    // poll() reports POLLERR for a pipe without a reader even if no event is requested.
    pollfd waited[] = {{m_nWakeUp, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    int ready = poll(waited, 2, milliseconds);
    if (ready < 0 && errno == EINTR) {
        ready = poll(waited, 2, 0);
    }
    if (ready <= 0) {
        return false;
    }
    if (waited[0].revents == 0) {
        std::raise(SIGPIPE);
    }
    return true;
}
