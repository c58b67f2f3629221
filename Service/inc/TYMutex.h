// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYMUTEX_H
#define TALLYRA_TYMUTEX_H

#include "TYThreadAnnotations.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

/// A standard mutex with the annotations of Clang's thread-safety analysis.
template <class Mutex>
class TY_CAPABILITY("mutex") CTYBasicMutex {
  public:
    CTYBasicMutex() = default;
    CTYBasicMutex(const CTYBasicMutex&) = delete;
    CTYBasicMutex& operator=(const CTYBasicMutex&) = delete;

    void Lock() TY_ACQUIRE() { m_Mutex.lock(); }
    void Unlock() TY_RELEASE() { m_Mutex.unlock(); }

  private:
    friend class CTYCondition;
    Mutex m_Mutex;
};

using CTYMutex = CTYBasicMutex<std::mutex>;
using CTYRecursiveMutex = CTYBasicMutex<std::recursive_mutex>;

/// Locks a mutex for the length of a scope.
template <class Mutex>
class TY_SCOPED_CAPABILITY CTYLock {
  public:
    explicit CTYLock(Mutex& mutex) TY_ACQUIRE(mutex) : m_Mutex(mutex) { m_Mutex.Lock(); }
    ~CTYLock() TY_RELEASE() { m_Mutex.Unlock(); }
    CTYLock(const CTYLock&) = delete;
    CTYLock& operator=(const CTYLock&) = delete;

  private:
    Mutex& m_Mutex;
};

/// A condition variable for CTYMutex.
class CTYCondition {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Waits once. Spurious wake-ups are possible.
    void Wait(CTYMutex& mutex) TY_REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.m_Mutex, std::adopt_lock);
        m_Condition.wait(lock);
        lock.release();
    }

    /// Waits once, at most until `deadline`. Spurious wake-ups are possible.
    /// @return false when the deadline has passed
    bool WaitUntil(CTYMutex& mutex, TimePoint deadline) TY_REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.m_Mutex, std::adopt_lock);
        const bool woken = m_Condition.wait_until(lock, deadline) == std::cv_status::no_timeout;
        lock.release();
        return woken;
    }

    /// Wakes all waiting threads. Needs no lock.
    void NotifyAll() noexcept { m_Condition.notify_all(); }

  private:
    std::condition_variable m_Condition;
};

#endif  // TALLYRA_TYMUTEX_H
