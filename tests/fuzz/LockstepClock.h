// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_LOCKSTEPCLOCK_H
#define TALLYRA_TESTS_FUZZ_LOCKSTEPCLOCK_H

#include "ITYClock.h"

#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>

/// A clock that moves only when the target moves it, and that knows when the library's threads are
/// idle. So every input always has the same result.
///
/// It counts the library's threads: one that waits on the clock or logs is known until it ends. It
/// counts the workers by the log lines of their start and end. It notifies a waiting worker until
/// the worker has woken, so that a lost wake-up has no effect.
///
/// Threads: the thread that created it moves the clock and settles; the library's threads wait.
class CLockstepClock : public ITYClock {
  public:
    int GetRealTime(timespec* pTime) override;
    TimePoint SteadyNow() override;
    bool WaitUntil(CTYCondition& condition, CTYMutex& mutex, TimePoint deadline) override
        TY_REQUIRES(mutex);

    /// Called for each log line on the thread that logs.
    void OnLog(const std::string& text);

    /// Sets the wall clock.
    void SetRealTime(std::int64_t ns);
    /// Makes the wall clock fail or work again.
    void FailRealTime(bool fail);
    /// Moves both clocks and settles.
    void Advance(std::chrono::milliseconds time);

    /// Returns when `count` threads of the library wait.
    void AwaitThreads(int count);
    /// Returns when all threads of the library wait and have looked for work since the call.
    void Settle();

  private:
    struct Waiter {
        CTYCondition* pCondition;
        TimePoint deadline;
        bool bWorker;
        std::uint64_t round;
        bool bExpired;
    };
    void See();
    void Leave();
    void WakeAll();
    bool IsParked(const Waiter& waiter) const;
    bool IsSettled() const;
    template <class Condition>
    void Await(std::unique_lock<std::mutex>& lock, Condition condition);

    const std::thread::id m_Owner = std::this_thread::get_id();
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::list<Waiter> m_Waiters;
    std::uint64_t m_nRound = 0;
    int m_nThreads = 0;
    int m_nWorkers = 0;
    TimePoint m_Now{std::chrono::hours(1)};
    std::int64_t m_nRealNs = 0;
    bool m_bFail = false;
};

#endif  // TALLYRA_TESTS_FUZZ_LOCKSTEPCLOCK_H
