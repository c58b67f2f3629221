// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Metronome.h"

#include "Truth.h"

#include <glib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace {

constexpr std::int64_t kPeriodUs = 100'000;
constexpr std::int64_t kLateUs = 50'000;

// The kernel counts it, in its second number.
std::int64_t WaitOf(const std::filesystem::path& thread) {
    std::int64_t ran = 0;
    std::int64_t waited = 0;
    std::ifstream(thread / "schedstat") >> ran >> waited;
    return waited;
}

}  // namespace

std::int64_t CMetronome::LongestWait() {
    std::int64_t longest = 0;
    std::error_code ended;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", ended)) {
        const std::int64_t wait = WaitOf(thread.path());
        std::int64_t& last = m_Waits[thread.path().filename()];
        longest = std::max(longest, wait - last);
        last = wait;
    }
    return longest / 1000;
}

void CMetronome::Run(const std::stop_token& stop) {
    LongestWait();
    while (!stop.stop_requested()) {
        const std::int64_t due = g_get_monotonic_time() + kPeriodUs;
        g_usleep(kPeriodUs);
        const std::int64_t late = std::max(g_get_monotonic_time() - due, LongestWait());
        if (late > kLateUs) {
            CTruth::Say("late", ",\"ms\":" + std::to_string(late / 1000));
        }
    }
}
