// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_SIGNALSBLOCKED_H
#define TALLYRA_PLATFORM_SIGNALSBLOCKED_H

#include <csignal>

/// Blocks all signals on this thread for a scope; a thread made in it inherits that, so that the
/// host's handlers never run on a thread of the platform.
class CSignalsBlocked {
  public:
    CSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_Before);
    }
    ~CSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    CSignalsBlocked(const CSignalsBlocked&) = delete;
    CSignalsBlocked& operator=(const CSignalsBlocked&) = delete;

  private:
    sigset_t m_Before;
};

#endif  // TALLYRA_PLATFORM_SIGNALSBLOCKED_H
