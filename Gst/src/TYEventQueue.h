// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYEVENTQUEUE_H
#define TALLYRA_GST_TYEVENTQUEUE_H

#include "PerProcess.h"
#include "TYGstEvent.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <vector>

/// Hands events from the threads of the pipeline and of the application to the observer's thread.
///
/// Threads: any may call Push, Handle and Close; the observer's thread calls the rest. The mutex is
/// held to move an event, and never while something else is called. In a forked child nothing is
/// handled or pushed, because this mutex, or one that a handler needs, may have been locked at the
/// fork.
class CTYEventQueue {
  public:
    /// @return the time of the events' clock
    static std::int64_t Now();

    /// As many events may wait, while the observer's thread waits for the bus. More are lost.
    static constexpr std::size_t kMostWaiting = 4096;

    /// Stamps an event and hands it over. Does nothing after Close.
    void Push(TYGstEvent::What what);
    /// Does a handler's work. No exception may pass through the frames of GStreamer, which are C:
    /// an event that finds no memory is lost and counted.
    template <class Work>
    void Handle(const Work& work) {
        if (!m_Process.IsCurrent()) {
            return;
        }
        try {
            work();
        } catch (const std::exception&) {
            m_nLost.fetch_add(1, std::memory_order_relaxed);
        }
    }
    /// Hands over TYClosed, and nothing after it. Needs no memory.
    void Close();

    /// Waits until there are events, or until `deadline`.
    /// @return the events
    std::vector<TYGstEvent> Wait(std::int64_t deadline);
    /// Drops what was handed over, and closes the queue: nobody will wait again.
    void Abandon();
    /// @return how many events found no memory or no room
    unsigned Lost() const { return m_nLost.load(std::memory_order_relaxed); }

  private:
    const CProcessId m_Process{};

    std::mutex m_Mutex;
    std::condition_variable m_Filled;
    // Guarded by m_Mutex.
    std::vector<TYGstEvent> m_Events;
    std::optional<std::int64_t> m_Closed;  ///< when
    bool m_bClosedTold = false;

    std::atomic<unsigned> m_nLost{0};
};

#endif  // TALLYRA_GST_TYEVENTQUEUE_H
