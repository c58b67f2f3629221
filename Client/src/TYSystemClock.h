// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSYSTEMCLOCK_H
#define TALLYRA_TYSYSTEMCLOCK_H

#include "ITYClock.h"

/// The clock of the machine. Waits count on the steady clock, so that setting the wall clock
/// neither shortens nor lengthens one.
class CTYSystemClock : public ITYClock {
  public:
    int GetRealTime(timespec* pTime) override;
    TimePoint SteadyNow() override;
    bool WaitUntil(CTYCondition& condition, CTYMutex& mutex, TimePoint deadline) override
        TY_REQUIRES(mutex);
};

#endif  // TALLYRA_TYSYSTEMCLOCK_H
