// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSLEEPER_H
#define TALLYRA_TYSLEEPER_H

#include "ITYClock.h"

/// A sleep that can be ended from outside, so that nobody who joins the sleeping thread has to
/// wait for the rest of it.
///
/// Threads: one sleeps, any may interrupt. The mutex guards the flag.
class CTYSleeper {
  public:
    explicit CTYSleeper(ITYClock& clock) : m_Clock(clock) {}

    /// Sleeps for the whole time, or until Interrupt; returns at once when it came before.
    void SleepFor(std::chrono::milliseconds time) TY_EXCLUDES(m_Mutex);

    /// Ends the sleep under way and all later ones, until Reset.
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
