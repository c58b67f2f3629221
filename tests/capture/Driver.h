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

/// Makes `gettid` return this number on every thread: it is part of each playback's identifier.
void SetThreadId(pid_t id);

/// A collector over doubles, driven one step at a time. The messages and their batches depend only
/// on the steps: each step ends when analyzer and sender wait, and time passes only between steps.
/// At 10 queued records the sender would send a batch of random size; so that throws, as does a
/// step that times out.
///
/// Threads: one.
class CDriver {
  public:
    /// Creates a collector and waits until it delivers.
    CDriver(CFakeBus& bus, const char* appId, int playerId);
    /// Deletes the collector, which flushes its records.
    ~CDriver();
    CDriver(const CDriver&) = delete;
    CDriver& operator=(const CDriver&) = delete;

    /// For calls that make no record.
    ITYDataCollector& Collector() { return *m_pCollector; }

    /// Sets the wall clock.
    void At(std::int64_t sec, std::int32_t nsec) { m_Clock.SetRealTime(sec, nsec); }
    /// Makes the wall clock fail or work again.
    void FailClock(bool fail) { m_Clock.FailRealTime(fail); }

    // Calls that make a record.
    void Event(int event, int param1 = 0, int param2 = 0);
    void Error(int error);
    void Execute(int code, int value, const std::string& text);
    /// Reports STOP, at which the sender sends the queued records.
    void Stop();

    /// Lets 20 s pass, after which the sender sends the queued records.
    void Flush();
    /// As Flush(), but the bus delays its reply until Release(), so any number of records queue up.
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

/// Plays fixed sessions with every call of the library and every kind of record, with the numbers,
/// times and texts that machines might encode differently.
/// @throws std::runtime_error  when a step fails
void PlaySessions(CFakeBus& bus);

#endif  // TALLYRA_TESTS_CAPTURE_DRIVER_H
