// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_CANCELLATIONDISABLED_H
#define TALLYRA_PLATFORM_CANCELLATIONDISABLED_H

#include <pthread.h>

/// Disables cancellation of the calling thread for a scope. If the host cancels the thread, the
/// cancellation takes effect after the platform call. Otherwise it could end the call midway, with
/// a lock held.
class CCancellationDisabled {
  public:
    CCancellationDisabled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_nBefore); }
    ~CCancellationDisabled() { pthread_setcancelstate(m_nBefore, nullptr); }
    CCancellationDisabled(const CCancellationDisabled&) = delete;
    CCancellationDisabled& operator=(const CCancellationDisabled&) = delete;

  private:
    int m_nBefore = PTHREAD_CANCEL_ENABLE;
};

#endif  // TALLYRA_PLATFORM_CANCELLATIONDISABLED_H
