// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYHOSTCALL_H
#define TALLYRA_TYHOSTCALL_H

#include <pthread.h>

/// Disables cancellation of the calling thread for one call of the host into the library.
///
/// Log lines, bus calls and joins are cancellation points. A cancellation there would unwind the
/// library's functions and skip their clean-up, or terminate the process at the first noexcept
/// function. A pending cancellation takes effect at the host's next cancellation point instead.
///
/// Threads: one. Create it on the stack.
class CTYHostCall {
  public:
    CTYHostCall() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_nBefore); }
    ~CTYHostCall() { pthread_setcancelstate(m_nBefore, nullptr); }
    CTYHostCall(const CTYHostCall&) = delete;
    CTYHostCall& operator=(const CTYHostCall&) = delete;

  private:
    int m_nBefore = PTHREAD_CANCEL_ENABLE;
};

#endif  // TALLYRA_TYHOSTCALL_H
