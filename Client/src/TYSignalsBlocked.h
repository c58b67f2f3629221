// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSIGNALSBLOCKED_H
#define TALLYRA_TYSIGNALSBLOCKED_H

#include <pthread.h>

#include <csignal>
#include <initializer_list>

/// Blocks signals on this thread for a scope; threads started in the scope inherit the mask. Faults
/// that a thread raises itself are never blocked: the kernel kills a process for a blocked fault,
/// without running the host's crash handler or a sandbox's SIGSYS handler.
class CTYSignalsBlocked {
  public:
    CTYSignalsBlocked() {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS}) {
            sigdelset(&blocked, fault);
        }
        pthread_sigmask(SIG_SETMASK, &blocked, &m_Before);
    }
    ~CTYSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    CTYSignalsBlocked(const CTYSignalsBlocked&) = delete;
    CTYSignalsBlocked& operator=(const CTYSignalsBlocked&) = delete;

  private:
    sigset_t m_Before;
};

#endif  // TALLYRA_TYSIGNALSBLOCKED_H
