// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSLEEPER_H
#define TALLYRA_TYSLEEPER_H

#include "ITYClock.h"

/// A sleep that another thread can interrupt, so that joining the sleeping thread does not wait for
/// the end of the sleep.
///
/// Threads: one sleeps, any may interrupt. The mutex guards the flag.
class CTYSleeper {
  public:
    explicit CTYSleeper(ITYClock& clock) : m_Clock(clock) {}

    /// Sleeps for the whole time or until Interrupt. Returns at once after an earlier Interrupt.
    void SleepFor(std::chrono::milliseconds time) TY_EXCLUDES(m_Mutex);

    /// Ends the current sleep and, until Reset, all later ones.
    void Interrupt() TY_EXCLUDES(m_Mutex);

    /// Lets the sleeper sleep again.
    void Reset() TY_EXCLUDES(m_Mutex);

  private:
    ITYClock& m_Clock;
    CTYMutex m_Mutex;
    CTYCondition m_Condition;
    bool m_bInterrupted TY_GUARDED_BY(m_Mutex) = false;
};

#endif  // TALLYRA_TYSLEEPER_H
