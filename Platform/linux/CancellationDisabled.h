// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_CANCELLATIONDISABLED_H
#define TALLYRA_PLATFORM_CANCELLATIONDISABLED_H

#include <pthread.h>

/// Keeps a cancellation of the host's thread pending for a scope, so that the thread does not end
/// inside of the platform with its work half done.
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
