// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "EndSignals.h"

#include <csignal>
#include <ctime>

namespace {

sigset_t Find() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_IGN) {
            sigaddset(&signals, signal);
        }
    }
    return signals;
}

// A blocked signal becomes pending even if it is ignored, as SIGHUP is under nohup.
const sigset_t& EndSignals() {
    static const sigset_t signals = Find();
    return signals;
}

}  // namespace

void HoldEndSignals() {
    sigprocmask(SIG_BLOCK, &EndSignals(), nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

void ReleaseEndSignals() {
    std::signal(SIGPIPE, SIG_DFL);
    sigprocmask(SIG_UNBLOCK, &EndSignals(), nullptr);
}

int AwaitEndSignal(std::chrono::milliseconds time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    const timespec rest{seconds.count(), std::chrono::nanoseconds(time - seconds).count()};
    const int signal = sigtimedwait(&EndSignals(), nullptr, &rest);
    return signal < 0 ? 0 : signal;
}
