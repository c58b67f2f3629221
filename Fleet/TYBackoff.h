// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYBACKOFF_H
#define TALLYRA_TYBACKOFF_H

#include <algorithm>
#include <chrono>
#include <random>

/// Pauses between attempts: each is about twice as long as the one before, and random, so that a
/// million devices do not come back at the same moment.
///
/// Threads: one.
class CTYBackoff {
  public:
    using Time = std::chrono::milliseconds;

    CTYBackoff(Time shortest, Time longest) : m_Shortest(shortest), m_Longest(longest) {}

    /// @return a time between half of this pause and all of it
    Time Next() {
        const Time pause = std::min(m_Longest, m_Shortest * (std::int64_t{1} << m_nFailures));
        m_nFailures = std::min(m_nFailures + 1, kMostDoublings);
        return Random(pause / 2, pause);
    }
    /// The next pause is the shortest one again.
    void Reset() { m_nFailures = 0; }
    bool HasFailed() const { return m_nFailures > 0; }

    Time Random(Time least, Time most) {
        return Time(
            std::uniform_int_distribution<Time::rep>(least.count(), most.count())(m_Random));
    }

  private:
    static constexpr int kMostDoublings = 20;

    const Time m_Shortest;
    const Time m_Longest;
    int m_nFailures = 0;
    std::minstd_rand m_Random{std::random_device()()};
};

#endif  // TALLYRA_TYBACKOFF_H
