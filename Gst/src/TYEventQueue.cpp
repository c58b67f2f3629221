// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYEventQueue.h"

#include <chrono>
#include <utility>

// steady_clock and g_get_monotonic_time are the same clock.
std::int64_t CTYEventQueue::Now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void CTYEventQueue::Push(TYGstEvent::What what) {
    if (!m_Process.IsCurrent()) {
        return;
    }
    const std::lock_guard lock(m_Mutex);
    if (m_Events.size() == kMostWaiting) {
        m_nLost.fetch_add(1, std::memory_order_relaxed);
    } else if (!m_Closed) {
        m_Events.push_back({Now(), std::move(what)});
        m_Filled.notify_one();
    }
}

void CTYEventQueue::Close() {
    if (!m_Process.IsCurrent()) {
        return;
    }
    const std::lock_guard lock(m_Mutex);
    if (!m_Closed) {
        m_Closed = Now();
        m_Filled.notify_one();
    }
}

void CTYEventQueue::Abandon() {
    Close();
    const std::lock_guard lock(m_Mutex);
    m_bClosedTold = true;
    m_Events.clear();
}

std::vector<TYGstEvent> CTYEventQueue::Wait(std::int64_t deadline) {
    const std::chrono::steady_clock::time_point until{std::chrono::microseconds(deadline)};
    const auto closes = [this] { return m_Closed && !m_bClosedTold; };
    std::unique_lock lock(m_Mutex);
    m_Filled.wait_until(lock, until, [&] { return !m_Events.empty() || closes(); });
    if (closes()) {
        m_Events.push_back({*m_Closed, TYClosed{}});
        m_bClosedTold = true;
    }
    return std::exchange(m_Events, {});
}
