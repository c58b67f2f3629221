// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_SIGNALSBLOCKED_H
#define TALLYRA_PLATFORM_SIGNALSBLOCKED_H

#include <array>
#include <csignal>

/// The signals that the kernel sends for a fault of the running instruction. The kernel kills a
/// process that blocks such a signal, past the host's crash handler.
constexpr std::array<int, 6> kSynchronousFaults = {SIGSEGV, SIGBUS,  SIGILL,
                                                   SIGFPE,  SIGTRAP, SIGSYS};

inline sigset_t SynchronousFaults() {
    sigset_t faults;
    sigemptyset(&faults);
    for (const int fault : kSynchronousFaults) {
        sigaddset(&faults, fault);
    }
    return faults;
}

/// Blocks all signals but synchronous faults on this thread for a scope. A thread made in it
/// inherits that, so that the host's handlers for other signals never run on a platform thread.
class CSignalsBlocked {
  public:
    CSignalsBlocked() {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : kSynchronousFaults) {
            sigdelset(&blocked, fault);
        }
        pthread_sigmask(SIG_BLOCK, &blocked, &m_Before);
    }
    ~CSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    CSignalsBlocked(const CSignalsBlocked&) = delete;
    CSignalsBlocked& operator=(const CSignalsBlocked&) = delete;

  private:
    sigset_t m_Before;
};

#endif  // TALLYRA_PLATFORM_SIGNALSBLOCKED_H
