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

class CLockstepClock::CPresence {
  public:
    CPresence() = default;
    ~CPresence() {
        if (m_pClock != nullptr) {
            m_pClock->Leave();
        }
    }
    CPresence(const CPresence&) = delete;
    CPresence& operator=(const CPresence&) = delete;

    /// @return whether the thread was not registered yet
    bool Enter(CLockstepClock* pClock) {
        const bool isNew = m_pClock == nullptr;
        m_pClock = pClock;
        return isNew;
    }

  private:
    CLockstepClock* m_pClock = nullptr;
};

void CLockstepClock::See() {
    static thread_local CPresence presence;
    if (std::this_thread::get_id() == m_Owner || !presence.Enter(this)) {
        return;
    }
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
    pTime->tv_sec = static_cast<time_t>(m_nRealSec);
    pTime->tv_nsec = m_nRealNs;
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

void CLockstepClock::SetRealTime(std::int64_t sec, std::int32_t nsec) {
    const std::lock_guard lock(m_Mutex);
    m_nRealSec = sec;
    m_nRealNs = nsec;
}

void CLockstepClock::FailRealTime(bool fail) {
    const std::lock_guard lock(m_Mutex);
    m_bFail = fail;
}

void CLockstepClock::Advance(std::chrono::milliseconds time) {
    {
        const std::lock_guard lock(m_Mutex);
        m_Now += time;
        const std::int64_t ns = m_nRealNs + std::chrono::nanoseconds(time).count();
        m_nRealSec += ns / kNsPerSec;
        m_nRealNs = static_cast<std::int32_t>(ns % kNsPerSec);
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
    const auto parked = [this](const Waiter& waiter) { return IsParked(waiter); };
    const auto worker = [](const Waiter& waiter) { return waiter.bWorker; };
    return std::all_of(m_Waiters.begin(), m_Waiters.end(), parked) &&
           static_cast<int>(m_Waiters.size()) == m_nThreads &&
           std::count_if(m_Waiters.begin(), m_Waiters.end(), worker) == m_nWorkers;
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
