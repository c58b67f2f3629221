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

/// A clock that moves only when it is told to, and knows when the library's threads have done all
/// that there is to do: what a sequence of calls leads to is then the same each time.
///
/// It counts the threads that wait on it or log, until they end; and the workers by the log lines
/// of their start and end. It wakes workers as often as it takes, so that no lost wake-up counts.
///
/// Threads: the one that made it moves it and settles; the library's do the rest.
class CLockstepClock : public ITYClock {
  public:
    CLockstepClock() = default;
    CLockstepClock(const CLockstepClock&) = delete;
    CLockstepClock& operator=(const CLockstepClock&) = delete;

    int GetRealTime(timespec* pTime) override;
    TimePoint SteadyNow() override;
    bool WaitUntil(CTYCondition& condition, CTYMutex& mutex, TimePoint deadline) override
        TY_REQUIRES(mutex);

    /// Tells it of each log line, on the thread that logs.
    void OnLog(const std::string& text);

    /// Sets the wall clock.
    void SetRealTime(std::int64_t sec, std::int32_t nsec);
    /// Has the wall clock fail, or work again.
    void FailRealTime(bool fail);
    /// Moves both clocks, and settles.
    void Advance(std::chrono::milliseconds time);

    /// Returns when so many threads of the library wait.
    void AwaitThreads(int count);
    /// Returns when all threads of the library wait, and have looked for work since it was called.
    void Settle();

  private:
    struct Waiter {
        CTYCondition* pCondition;
        TimePoint deadline;
        bool bWorker;
        std::uint64_t round;
        bool bExpired;
    };
    /// Lives as long as a thread of the library that it has seen.
    class CPresence;

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
    std::int64_t m_nRealSec = 0;
    std::int32_t m_nRealNs = 0;
    bool m_bFail = false;
};

#endif  // TALLYRA_TESTS_FUZZ_LOCKSTEPCLOCK_H
