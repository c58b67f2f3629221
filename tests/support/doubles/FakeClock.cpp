// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "doubles/FakeClock.h"

#include <algorithm>
#include <cerrno>
#include <vector>

namespace {

constexpr std::int64_t kNsPerSec = 1'000'000'000;

}  // namespace

int CFakeClock::GetRealTime(timespec* pTime) {
    if (m_bFail) {
        errno = EINVAL;
        return -1;
    }
    const std::lock_guard lock(m_Mutex);
    pTime->tv_sec = static_cast<time_t>(m_nRealNs / kNsPerSec);
    pTime->tv_nsec = static_cast<long>(m_nRealNs % kNsPerSec);
    return 0;
}

ITYClock::TimePoint CFakeClock::SteadyNow() {
    const std::lock_guard lock(m_Mutex);
    return m_Now;
}

bool CFakeClock::WaitUntil(CTYCondition& condition, CTYMutex& mutex, TimePoint deadline) {
    std::list<Waiter>::iterator self;
    {
        const std::lock_guard lock(m_Mutex);
        if (m_Now >= deadline) {
            return false;
        }
        self = m_Waiters.insert(m_Waiters.end(), {&condition, &mutex, deadline});
        m_Changed.notify_all();
    }
    condition.Wait(mutex);
    const std::lock_guard lock(m_Mutex);
    const bool woken = !self->bExpired;
    m_Waiters.erase(self);
    m_Changed.notify_all();
    return woken;
}

// A waiter that is not on its condition yet misses the notification, so it is sent until all are
// awake. The notification is sent under our mutex: the waiter cannot leave, and its condition
// cannot go, while it is used.
void CFakeClock::Advance(std::chrono::milliseconds time) {
    std::unique_lock lock(m_Mutex);
    m_Now += time;
    m_nRealNs += std::chrono::nanoseconds(time).count();
    for (Waiter& waiter : m_Waiters) {
        waiter.bExpired = waiter.bExpired || m_Now >= waiter.deadline;
    }
    const auto expired = [this] { return std::ranges::find(m_Waiters, true, &Waiter::bExpired); };
    for (auto next = expired(); next != m_Waiters.end(); next = expired()) {
        next->pCondition->NotifyAll();
        m_Changed.wait_for(lock, std::chrono::microseconds(200));
    }
}

void CFakeClock::SetRealTime(std::int64_t sec, std::int32_t nsec) {
    const std::lock_guard lock(m_Mutex);
    m_nRealNs = sec * kNsPerSec + nsec;
}

// A waiter gives its mutex back when it is on its condition.
bool CFakeClock::AwaitWaiter(std::chrono::milliseconds remaining,
                             std::chrono::milliseconds realTime, std::size_t count) {
    std::vector<CTYMutex*> mutexes;
    {
        std::unique_lock lock(m_Mutex);
        m_Changed.wait_for(lock, realTime, [&] {
            mutexes.clear();
            for (const Waiter& waiter : m_Waiters) {
                if (waiter.deadline - m_Now == remaining) {
                    mutexes.push_back(waiter.pMutex);
                }
            }
            return mutexes.size() >= count;
        });
    }
    for (CTYMutex* pMutex : mutexes) {
        const CTYLock lock(*pMutex);
    }
    return mutexes.size() >= count;
}
