// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSleeper.h"

void CTYSleeper::SleepFor(std::chrono::milliseconds time) {
    const ITYClock::TimePoint deadline = m_Clock.SteadyNow() + time;
    CTYLock lock(m_Mutex);
    while (!m_bInterrupted && m_Clock.SteadyNow() < deadline) {
        m_Clock.WaitUntil(m_Condition, m_Mutex, deadline);
    }
}

void CTYSleeper::Interrupt() {
    CTYLock lock(m_Mutex);
    m_bInterrupted = true;
    m_Condition.NotifyAll();
}

void CTYSleeper::Reset() {
    CTYLock lock(m_Mutex);
    m_bInterrupted = false;
}
