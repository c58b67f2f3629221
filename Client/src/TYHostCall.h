// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYHOSTCALL_H
#define TALLYRA_TYHOSTCALL_H

#include <pthread.h>

/// One call of the host into the library.
///
/// While it lasts the calling thread cannot be cancelled: a log line, a bus call or a join is a
/// cancellation point, and unwinding out of the library from there would skip what it has to give
/// back, or end the process at the first noexcept function. A pending cancellation takes effect at
/// the host's next cancellation point.
///
/// Threads: one. To be made on the stack.
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
