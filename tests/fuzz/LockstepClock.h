// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_LOCKSTEPCLOCK_H
#define TALLYRA_TESTS_FUZZ_LOCKSTEPCLOCK_H

#include "Eventually.h"
#include "ITYClock.h"
#include "Target.h"

#include <condition_variable>
#include <cstdint>
#include <iterator>
#include <list>
#include <mutex>
#include <string>

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
    int GetRealTime(timespec* pTime) override {
        constexpr std::int64_t kNsPerSec = 1'000'000'000;
        const std::lock_guard lock(m_Mutex);
        if (m_bFail) {
            return -1;
        }
        *pTime = {static_cast<time_t>(m_nRealNs / kNsPerSec),
                  static_cast<long>(m_nRealNs % kNsPerSec)};
        return 0;
    }

    TimePoint SteadyNow() override {
        const std::lock_guard lock(m_Mutex);
        return m_Now;
    }

    bool WaitUntil(CTYCondition& condition, CTYMutex& mutex, TimePoint deadline) override
        TY_REQUIRES(mutex) {
        constexpr std::chrono::seconds kWorkersWait{20};
        See();
        std::list<Waiter>::iterator self;
        {
            const std::lock_guard lock(m_Mutex);
            if (m_Now >= deadline) {
                return false;
            }
            self = m_Waiters.insert(
                m_Waiters.end(),
                {&condition, deadline, deadline - m_Now == kWorkersWait, m_nRound, false});
            m_Changed.notify_all();
        }
        condition.Wait(mutex);
        const std::lock_guard lock(m_Mutex);
        const bool woken = !self->bExpired;
        m_Waiters.erase(self);
        m_Changed.notify_all();
        return woken;
    }

    /// Called for each log line on the thread that logs.
    void OnLog(const std::string& text) {
        See();
        const bool started =
            text == "Analyzer thread start done" || text == "Sender thread start done";
        if (started || text == "Analyzer thread finished" || text == "Sender thread finished") {
            Count(m_nWorkers, started ? 1 : -1);
        }
    }

    /// Sets the wall clock.
    void SetRealTime(std::int64_t ns, bool fails) {
        const std::lock_guard lock(m_Mutex);
        m_nRealNs = ns;
        m_bFail = fails;
    }

    /// Moves both clocks and settles.
    void Advance(std::chrono::milliseconds time) {
        {
            const std::lock_guard lock(m_Mutex);
            m_Now += time;
            m_nRealNs += std::chrono::nanoseconds(time).count();
            for (Waiter& waiter : m_Waiters) {
                waiter.bExpired = waiter.bExpired || m_Now >= waiter.deadline;
            }
        }
        Settle();
    }

    /// Returns when `count` threads of the library wait.
    void AwaitThreads(std::size_t count) {
        Await([&] { return m_Waiters.size() == count; });
    }

    /// Returns when all threads of the library wait and have looked for work since the call.
    void Settle() {
        Await([this] { return IsSettled(); });
        // A thread may have started to wait before this call. Only in a new round it has looked for
        // work since.
        {
            const std::lock_guard lock(m_Mutex);
            ++m_nRound;
        }
        Await([this] { return IsSettled(); });
    }

  private:
    struct Waiter {
        CTYCondition* pCondition;
        TimePoint deadline;
        bool bWorker;
        std::uint64_t round;
        bool bExpired;
    };

    void Count(std::ptrdiff_t& number, int change) {
        const std::lock_guard lock(m_Mutex);
        number += change;
        m_Changed.notify_all();
    }

    /// Counts the calling thread, unless it is the target's, until the thread ends.
    void See() {
        struct Presence {
            CLockstepClock* pClock = nullptr;
            ~Presence() {
                if (pClock != nullptr) {
                    pClock->Count(pClock->m_nThreads, -1);
                }
            }
        };
        static thread_local Presence presence;
        if (std::this_thread::get_id() != m_Owner && presence.pClock == nullptr) {
            presence.pClock = this;
            Count(m_nThreads, 1);
        }
    }

    bool IsParked(const Waiter& waiter) const {
        return !waiter.bExpired && (!waiter.bWorker || waiter.round == m_nRound);
    }

    bool IsSettled() const {
        return std::ssize(m_Waiters) == m_nThreads &&
               std::ranges::count(m_Waiters, true, &Waiter::bWorker) == m_nWorkers &&
               std::ranges::all_of(m_Waiters,
                                   [this](const Waiter& waiter) { return IsParked(waiter); });
    }

    /// Waits until a condition holds. A waiter that has not reached its condition yet misses a
    /// notification, so this repeats it. The mutex is held meanwhile: the waiter cannot leave, so
    /// its condition is not destroyed.
    template <class Condition>
    void Await(const Condition& condition) {
        constexpr std::chrono::microseconds kBetweenWakes{200};
        const auto end = std::chrono::steady_clock::now() + kPatience;
        std::unique_lock lock(m_Mutex);
        while (!condition()) {
            Require(std::chrono::steady_clock::now() < end, "the library's threads become idle");
            for (const Waiter& waiter : m_Waiters) {
                if (!IsParked(waiter)) {
                    waiter.pCondition->NotifyAll();
                }
            }
            m_Changed.wait_for(lock, kBetweenWakes);
        }
    }

    const std::thread::id m_Owner = std::this_thread::get_id();
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::list<Waiter> m_Waiters;
    std::uint64_t m_nRound = 0;
    std::ptrdiff_t m_nThreads = 0;
    std::ptrdiff_t m_nWorkers = 0;
    TimePoint m_Now{std::chrono::hours(1)};
    std::int64_t m_nRealNs = 0;
    bool m_bFail = false;
};

#endif  // TALLYRA_TESTS_FUZZ_LOCKSTEPCLOCK_H
