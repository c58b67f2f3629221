// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSIGNALSBLOCKED_H
#define TALLYRA_TYSIGNALSBLOCKED_H

#include <pthread.h>

#include <csignal>

/// Blocks all signals on this thread for a scope; threads made in it inherit that.
class CTYSignalsBlocked {
  public:
    CTYSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_Before);
    }
    ~CTYSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    CTYSignalsBlocked(const CTYSignalsBlocked&) = delete;
    CTYSignalsBlocked& operator=(const CTYSignalsBlocked&) = delete;

  private:
    sigset_t m_Before;
};

#endif  // TALLYRA_TYSIGNALSBLOCKED_H
