// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_FAKECLOCK_H
#define TALLYRA_TESTS_SUPPORT_FAKECLOCK_H

#include "ITYClock.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>

/// A clock that moves only when a test moves it. A waiting thread wakes when it is notified, or
/// when the test moves the time past the deadline.
///
/// Threads: any.
class CFakeClock : public ITYClock {
  public:
    int GetRealTime(timespec* pTime) override;
    TimePoint SteadyNow() override;
    bool WaitUntil(CTYCondition& condition, CTYMutex& mutex, TimePoint deadline) override
        TY_REQUIRES(mutex);

    /// Moves both clocks forward. Returns when all threads whose deadline has passed are awake.
    void Advance(std::chrono::milliseconds time);

    /// Sets the wall clock.
    void SetRealTime(std::int64_t sec, std::int32_t nsec);
    /// Makes the wall clock fail, or work again.
    void FailRealTime(bool fail) { m_bFail = fail; }

    /// Waits, at most `realTime`, until `count` threads wait with exactly `remaining` to go.
    /// @return whether they do; they are on their conditions then and miss no notification
    bool AwaitWaiter(std::chrono::milliseconds remaining,
                     std::chrono::milliseconds realTime = std::chrono::seconds(30),
                     std::size_t count = 1);
    /// @return how many threads wait now
    std::size_t Waiters() {
        const std::lock_guard lock(m_Mutex);
        return m_Waiters.size();
    }

  private:
    struct Waiter {
        CTYCondition* pCondition;
        CTYMutex* pMutex;
        TimePoint deadline;
        bool bExpired = false;
    };

    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::list<Waiter> m_Waiters;
    TimePoint m_Now{std::chrono::hours(1)};
    std::int64_t m_nRealNs = 1'700'000'000'000'000'000;
    std::atomic<bool> m_bFail{false};
};

#endif  // TALLYRA_TESTS_SUPPORT_FAKECLOCK_H
