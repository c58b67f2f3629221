// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_CAPTURE_DRIVER_H
#define TALLYRA_TESTS_CAPTURE_DRIVER_H

#include "TYDataCollector.h"
#include "doubles/FakeBus.h"
#include "doubles/FakeClock.h"
#include "doubles/PlatformDouble.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

/// Has `gettid` return this on every thread from now on, in the whole program: the kernel's own
/// numbers are in each playback's identifier.
void SetThreadId(pid_t id);

/// A collector over doubles that is driven one step at a time, so that what goes out, and how it is
/// cut into batches, depends on nothing but the steps: no step ends before both workers wait, and
/// time passes only between steps. Whatever does not go as the step says throws
/// std::runtime_error; so does a tenth waiting record, which would have the sender take a batch of
/// any size.
///
/// Threads: one.
class CDriver {
  public:
    /// Makes a collector, and waits until it collects.
    CDriver(CFakeBus& bus, const char* appId, int playerId);
    /// Deletes the collector, which delivers what waits.
    ~CDriver();
    CDriver(const CDriver&) = delete;
    CDriver& operator=(const CDriver&) = delete;

    /// For calls that make no record.
    ITYDataCollector& Collector() { return *m_pCollector; }

    /// Sets the wall clock.
    void At(std::int64_t sec, std::int32_t nsec) { m_Clock.SetRealTime(sec, nsec); }
    /// Has the wall clock fail, or work again.
    void FailClock(bool fail) { m_Clock.FailRealTime(fail); }

    // Calls that make a record.
    void Event(int event, int param1 = 0, int param2 = 0);
    void Error(int error);
    void Execute(int code, int value, const std::string& text);
    /// Reports STOP, which sends what waits.
    void Stop();

    /// Lets 20 seconds pass, after which the sender sends what waits.
    void Flush();
    /// The same, but the call does not return before Release: records wait, however many.
    void FlushAndHold();
    void Release();

  private:
    void Require(bool done, const std::string& what);
    void AwaitAnalyzer();
    void AwaitSender();
    void AwaitIdle(std::size_t workers);
    void LetGo();
    void StayWhileHeld();

    CFakeBus& m_Bus;
    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    CFakeClock m_Clock;
    std::unique_ptr<CTYDataCollector> m_pCollector;
    std::size_t m_nAnalyzerSleeps = 0;
    std::size_t m_nSenderSleeps = 0;
    std::atomic<std::size_t> m_nWaiting{0};
    bool m_bHeld = false;
    // Whether the next call stays, and whether one does; the mutex guards both.
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    bool m_bHold = false;
    bool m_bInside = false;
};

#endif  // TALLYRA_TESTS_CAPTURE_DRIVER_H
