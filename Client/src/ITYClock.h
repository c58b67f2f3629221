// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_ITYCLOCK_H
#define TALLYRA_ITYCLOCK_H

#include "TYMutex.h"

#include <chrono>
#include <ctime>

/// The clocks that the library reads, and its waits on them. Tests replace this interface to check
/// a 20-second rule in a millisecond.
///
/// Threads: every operation may be called from any thread.
class ITYClock {
  public:
    using TimePoint = CTYCondition::TimePoint;

    virtual ~ITYClock() = default;

    /// Reads the wall clock as `clock_gettime(CLOCK_REALTIME)` does.
    /// @return 0; on failure -1, and `*pTime` is unchanged
    virtual int GetRealTime(timespec* pTime) = 0;

    /// @return the time of a clock that never goes backwards
    virtual TimePoint SteadyNow() = 0;

    /// Waits once on the condition, at most until SteadyNow reaches `deadline`. Spurious wake-ups
    /// are possible.
    /// @return false when the deadline has passed
    virtual bool WaitUntil(CTYCondition& condition, CTYMutex& mutex, TimePoint deadline)
        TY_REQUIRES(mutex) = 0;
};

/// @return the machine's clock; lives as long as the process
ITYClock& SystemClock();

#endif  // TALLYRA_ITYCLOCK_H
