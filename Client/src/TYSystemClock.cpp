// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSystemClock.h"

int CTYSystemClock::GetRealTime(timespec* pTime) {
    return clock_gettime(CLOCK_REALTIME, pTime);
}

ITYClock::TimePoint CTYSystemClock::SteadyNow() {
    return std::chrono::steady_clock::now();
}

bool CTYSystemClock::WaitUntil(CTYCondition& condition, CTYMutex& mutex, TimePoint deadline) {
    return condition.WaitUntil(mutex, deadline);
}

ITYClock& SystemClock() {
    static CTYSystemClock& clock = *new CTYSystemClock;
    return clock;
}
