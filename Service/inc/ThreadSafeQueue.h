// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_THREADSAFEQUEUE_H
#define TALLYRA_THREADSAFEQUEUE_H

#include "TYAssert.h"
#include "TYMutex.h"

#include <cstddef>
#include <deque>
#include <stdexcept>

/// A first-in-first-out queue of pointers.
///
/// Threads: any. Each operation holds the mutex until it returns.
/// Ownership: stores pointers and never frees the objects, not even when destroyed.
template <class Type>
class CThreadSafeQueue {
  public:
    /// Appends at the back.
    void push(Type element) TY_EXCLUDES(m_Mutex) {
        CTYLock lock(m_Mutex);
        m_Queue.push_back(element);
    }

    /// @return the number of elements
    std::size_t size() const TY_EXCLUDES(m_Mutex) {
        CTYLock lock(m_Mutex);
        return m_Queue.size();
    }

    /// @return the front element, which stays in the queue
    /// @throws std::range_error "queue empty"
    Type front() const TY_EXCLUDES(m_Mutex) {
        CTYLock lock(m_Mutex);
        ThrowIfEmpty();
        return m_Queue.front();
    }

    /// Removes the front element. Fails an assertion if the queue is empty.
    void pop() TY_EXCLUDES(m_Mutex) {
        CTYLock lock(m_Mutex);
        if (m_Queue.empty()) {
            TY_ASSERT(false && "Trying pop() to empty queue. Should check queue size");
            return;
        }
        m_Queue.pop_front();
    }

    /// Removes and returns the front element in one step, so that two threads never get the same.
    /// @throws std::range_error "queue empty"
    Type take() TY_EXCLUDES(m_Mutex) {
        CTYLock lock(m_Mutex);
        ThrowIfEmpty();
        const Type element = m_Queue.front();
        m_Queue.pop_front();
        return element;
    }

    /// Moves the front element into `element`.
    /// @return false when the queue is empty
    bool try_take(Type& element) noexcept TY_EXCLUDES(m_Mutex) {
        CTYLock lock(m_Mutex);
        if (m_Queue.empty()) {
            return false;
        }
        element = m_Queue.front();
        m_Queue.pop_front();
        return true;
    }

  private:
    void ThrowIfEmpty() const TY_REQUIRES(m_Mutex) {
        if (m_Queue.empty()) {
            throw std::range_error("queue empty");
        }
    }

    std::deque<Type> m_Queue TY_GUARDED_BY(m_Mutex);
    mutable CTYMutex m_Mutex;
};

#endif  // TALLYRA_THREADSAFEQUEUE_H
