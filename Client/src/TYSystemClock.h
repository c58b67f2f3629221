// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSYSTEMCLOCK_H
#define TALLYRA_TYSYSTEMCLOCK_H

#include "ITYClock.h"

/// The machine's clock. Waits use the steady clock, so setting the wall clock does not change them.
class CTYSystemClock : public ITYClock {
  public:
    int GetRealTime(timespec* pTime) override;
    TimePoint SteadyNow() override;
    bool WaitUntil(CTYCondition& condition, CTYMutex& mutex, TimePoint deadline) override
        TY_REQUIRES(mutex);
};

#endif  // TALLYRA_TYSYSTEMCLOCK_H
