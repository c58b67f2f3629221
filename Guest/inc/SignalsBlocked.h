// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GUEST_SIGNALSBLOCKED_H
#define TALLYRA_GUEST_SIGNALSBLOCKED_H

#include <pthread.h>

#include <csignal>
#include <initializer_list>

/// Blocks all signals but synchronous faults on the calling thread for a scope. A thread created in
/// that scope inherits the mask, so the host's handlers run on the host's threads only.
///
/// Synchronous faults (SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP and SIGSYS) are unblocked, even if
/// the caller had blocked them. If a thread raises a blocked fault, the kernel kills the process
/// without running the host's crash handler, or a sandbox's handler of SIGSYS.
class CSignalsBlocked {
  public:
    CSignalsBlocked() {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS}) {
            sigdelset(&blocked, fault);
        }
        pthread_sigmask(SIG_SETMASK, &blocked, &m_Before);
    }
    ~CSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    CSignalsBlocked(const CSignalsBlocked&) = delete;
    CSignalsBlocked& operator=(const CSignalsBlocked&) = delete;

  private:
    sigset_t m_Before;
};

#endif  // TALLYRA_GUEST_SIGNALSBLOCKED_H
