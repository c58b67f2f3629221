// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_EVENTUALLY_H
#define TALLYRA_TESTS_SUPPORT_EVENTUALLY_H

#include <algorithm>
#include <chrono>
#include <thread>

/// How long a test waits for something that must happen. Only a failing test waits this long.
constexpr std::chrono::seconds kPatience{60};

/// How long a test waits to see that something does not happen.
constexpr std::chrono::milliseconds kShortWhile{100};

/// Polls a condition until it holds or the patience is over, with pauses of 50 µs that grow to 3
/// ms. For conditions without a notification: files, other processes.
/// @return whether the condition held in time
template <typename Condition>
bool Eventually(const Condition& condition, std::chrono::nanoseconds patience = kPatience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    constexpr std::chrono::microseconds kLongestPause{3200};
    for (std::chrono::microseconds pause(50); !condition();
         pause = std::min(2 * pause, kLongestPause)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}

#endif  // TALLYRA_TESTS_SUPPORT_EVENTUALLY_H
