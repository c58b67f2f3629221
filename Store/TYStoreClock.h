// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTORECLOCK_H
#define TALLYRA_TYSTORECLOCK_H

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

/// What the machine's clocks show.
struct TYTimes {
    std::string boot;           ///< identity of this boot; empty if it is unknown
    std::int64_t boottime = 0;  ///< nanoseconds since the boot, time in suspend included
    std::int64_t wall = 0;      ///< nanoseconds since 1970-01-01 UTC
};

using TYReadTimes = std::function<TYTimes()>;

/// @return the kernel's boot id, CLOCK_BOOTTIME and CLOCK_REALTIME. Callable from any thread.
TYTimes SystemTimes();

/// A moment on the running time of a store, and what the machine's clocks showed then.
struct TYMoment {
    std::int64_t clock = 0;  ///< nanoseconds that the store's machine has run
    TYTimes times;
};

/// The running time of a store, which ages are measured with, see TYStoreClock.cpp.
///
/// Threads: one.
class CTYStoreClock {
  public:
    /// @param saved    a moment that Read returned, perhaps before a restart or a reboot; a moment
    ///                 without a boot if there is none
    /// @param atLeast  where the clock stood at least
    CTYStoreClock(TYReadTimes readTimes, const TYMoment& saved, std::int64_t atLeast);

    /// Reads all clocks. The running time never decreases.
    const TYMoment& Read();

    /// @return nanoseconds by which the wall clock has stepped between two calls of Read since the
    ///         last call of this function, or since the saved moment if the boot is still the same;
    ///         0 if it has not. Differences of at most 2 s between two calls of Read are not steps.
    std::int64_t TakeStep() { return std::exchange(m_nStep, 0); }

  private:
    TYReadTimes m_ReadTimes;
    TYMoment m_Last;
    std::int64_t m_nStep = 0;
};

#endif  // TALLYRA_TYSTORECLOCK_H
