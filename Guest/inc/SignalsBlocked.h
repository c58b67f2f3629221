// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GUEST_SIGNALSBLOCKED_H
#define TALLYRA_GUEST_SIGNALSBLOCKED_H

#include <pthread.h>

#include <csignal>

/// The signals that an instruction or a system call of the thread itself raises.
inline constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS};

/// Blocks all signals but synchronous faults on the calling thread for a scope. A thread created in
/// that scope inherits the mask, so the host's handlers run on the host's threads only.
///
/// A fault (SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP or SIGSYS) that the caller has blocked stays
/// blocked: unblocking it would deliver a pending one.
class CSignalsBlocked {
  public:
    CSignalsBlocked() {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : kFaultSignals) {
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

#endif  // TALLYRA_GUEST_SIGNALSBLOCKED_H
