// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYWALLCLOCK_H
#define TALLYRA_TYWALLCLOCK_H

#include <chrono>
#include <cstdint>

/// @return nanoseconds since 1970-01-01 UTC, the unit of arrival times
inline std::int64_t WallClockNow() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

#endif  // TALLYRA_TYWALLCLOCK_H
