// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "LockstepClock.h"

#include "Eventually.h"
#include "Target.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr std::chrono::seconds kWorkersWait{20};
constexpr std::chrono::microseconds kBetweenWakes{200};
constexpr std::int64_t kNsPerSec = 1'000'000'000;

}  // namespace

// Counts the calling thread, unless it is the target's, until the thread ends.
void CLockstepClock::See() {
    struct Presence {
        CLockstepClock* pClock = nullptr;
        ~Presence() {
            if (pClock != nullptr) {
                pClock->Leave();
            }
        }
    };
    static thread_local Presence presence;
    if (std::this_thread::get_id() == m_Owner || presence.pClock != nullptr) {
        return;
    }
    presence.pClock = this;
    const std::lock_guard lock(m_Mutex);
    ++m_nThreads;
}

void CLockstepClock::Leave() {
    const std::lock_guard lock(m_Mutex);
    --m_nThreads;
    m_Changed.notify_all();
}

void CLockstepClock::OnLog(const std::string& text) {
    See();
    const bool started = text == "Analyzer thread start done" || text == "Sender thread start done";
    const bool finished = text == "Analyzer thread finished" || text == "Sender thread finished";
    if (started || finished) {
        const std::lock_guard lock(m_Mutex);
        m_nWorkers += started ? 1 : -1;
        m_Changed.notify_all();
    }
}

int CLockstepClock::GetRealTime(timespec* pTime) {
    const std::lock_guard lock(m_Mutex);
    if (m_bFail) {
        return -1;
    }
    pTime->tv_sec = static_cast<time_t>(m_nRealNs / kNsPerSec);
    pTime->tv_nsec = static_cast<long>(m_nRealNs % kNsPerSec);
    return 0;
}

ITYClock::TimePoint CLockstepClock::SteadyNow() {
    const std::lock_guard lock(m_Mutex);
    return m_Now;
}

bool CLockstepClock::WaitUntil(CTYCondition& condition, CTYMutex& mutex, TimePoint deadline) {
    See();
    std::list<Waiter>::iterator self;
    {
        const std::lock_guard lock(m_Mutex);
        if (m_Now >= deadline) {
            return false;
        }
        m_Waiters.push_back(
            {&condition, deadline, deadline - m_Now == kWorkersWait, m_nRound, false});
        self = std::prev(m_Waiters.end());
        m_Changed.notify_all();
    }
    condition.Wait(mutex);
    const std::lock_guard lock(m_Mutex);
    const bool woken = !self->bExpired;
    m_Waiters.erase(self);
    m_Changed.notify_all();
    return woken;
}

void CLockstepClock::SetRealTime(std::int64_t ns) {
    const std::lock_guard lock(m_Mutex);
    m_nRealNs = ns;
}

void CLockstepClock::FailRealTime(bool fail) {
    const std::lock_guard lock(m_Mutex);
    m_bFail = fail;
}

void CLockstepClock::Advance(std::chrono::milliseconds time) {
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

bool CLockstepClock::IsParked(const Waiter& waiter) const {
    return !waiter.bExpired && (!waiter.bWorker || waiter.round == m_nRound);
}

bool CLockstepClock::IsSettled() const {
    return std::ssize(m_Waiters) == m_nThreads &&
           std::ranges::count(m_Waiters, true, &Waiter::bWorker) == m_nWorkers &&
           std::ranges::all_of(m_Waiters,
                               [this](const Waiter& waiter) { return IsParked(waiter); });
}

// A waiter that has not reached its condition yet misses a notification, so Await repeats it. The
// mutex is held meanwhile: the waiter cannot leave, so its condition is not destroyed.
void CLockstepClock::WakeAll() {
    for (const Waiter& waiter : m_Waiters) {
        if (!IsParked(waiter)) {
            waiter.pCondition->NotifyAll();
        }
    }
}

template <class Condition>
void CLockstepClock::Await(std::unique_lock<std::mutex>& lock, Condition condition) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        Require(std::chrono::steady_clock::now() < end, "the library's threads become idle");
        WakeAll();
        m_Changed.wait_for(lock, kBetweenWakes);
    }
}

void CLockstepClock::AwaitThreads(int count) {
    std::unique_lock lock(m_Mutex);
    Await(lock, [&] { return static_cast<int>(m_Waiters.size()) == count; });
}

// A thread may have started to wait before this call. Only in a new round it has looked for work
// since.
void CLockstepClock::Settle() {
    std::unique_lock lock(m_Mutex);
    Await(lock, [this] { return IsSettled(); });
    ++m_nRound;
    Await(lock, [this] { return IsSettled(); });
}
