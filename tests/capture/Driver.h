// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_CAPTURE_DRIVER_H
#define TALLYRA_TESTS_CAPTURE_DRIVER_H

#include "TYDataCollector.h"
#include "doubles/FakeBus.h"
#include "doubles/FakeClock.h"
#include "doubles/PlatformDouble.h"

#include <semaphore>
#include <stdexcept>

/// A collector over doubles, driven one step at a time. The messages and their batches depend only
/// on the steps: each step ends when analyzer and sender wait, and time passes only between steps.
/// At 10 queued records the sender would send a batch of random size; so that throws, as does a
/// step that times out.
///
/// Threads: one.
class CDriver {
  public:
    /// Creates a collector and waits until it delivers.
    CDriver(CFakeBus& bus, const char* appId, int playerId) : m_Bus(bus) {
        m_Platform.ClearLog();
        // The first line that the analyzer logs for a record that it passes on.
        m_Platform.onLog = [this](const CPlatformDouble::LogLine& line) {
            m_nWaiting += line.text.starts_with("pUrl ") ? 1 : 0;
        };
        m_Bus.onCall = [this](const CFakeBus::Call& /*call*/) {
            if (m_bHeld) {
                m_Inside.release();
                m_Released.acquire();
            }
        };
        m_pCollector = std::make_unique<CTYDataCollector>(
            appId, static_cast<TY_PLAYER_ID>(playerId), m_Bus, m_Clock);
        ++m_nAnalyzerSleeps;
        AwaitSender();
    }
    /// Deletes the collector, which flushes its records.
    ~CDriver() {
        m_Released.release();
        m_pCollector.reset();
        m_Bus.onCall = nullptr;
        m_Platform.onLog = nullptr;
    }
    CDriver(const CDriver&) = delete;
    CDriver& operator=(const CDriver&) = delete;

    /// For calls that make no record.
    ITYDataCollector& Collector() { return *m_pCollector; }

    /// Sets the wall clock.
    void At(std::int64_t sec, std::int32_t nsec) { m_Clock.SetRealTime(sec, nsec); }
    /// Makes the wall clock fail or work again.
    void FailClock(bool fail) { m_Clock.FailRealTime(fail); }

    // Calls that make a record.
    void Event(int event, int param1 = 0, int param2 = 0) {
        m_pCollector->SendMediaEvent(static_cast<TY_EVENT_TYPE>(event), param1, param2);
        AwaitAnalyzer();
    }
    void Error(int error) {
        m_pCollector->SendMediaError(static_cast<TY_ERROR_TYPE>(error));
        AwaitAnalyzer();
    }
    void Execute(int code, int value, const std::string& text) {
        Require(m_pCollector->Execute(code, value, text), "Execute was refused");
        AwaitAnalyzer();
    }
    /// Reports STOP, at which the sender sends the queued records.
    void Stop() {
        Require(m_nWaiting + 2 < kWakesSender, "too many records are queued before a STOP");
        m_pCollector->SendMediaEvent(TY_EVENT_STOP, 0, 0);
        ++m_nAnalyzerSleeps;
        AwaitSender();
    }

    /// Lets 20 s pass, after which the sender sends the queued records.
    void Flush() {
        m_Clock.Advance(kWaitPeriod);
        ++m_nAnalyzerSleeps;
        AwaitSender();
    }
    /// As Flush(), but the bus delays its reply until Release(), so any number of records queue up.
    void FlushAndHold() {
        m_bHeld = true;
        m_Clock.Advance(kWaitPeriod);
        Require(m_Inside.try_acquire_for(std::chrono::seconds(30)), "no call was made");
        AwaitAnalyzer();
    }
    void Release() {
        m_bHeld = false;
        m_Released.release();
        AwaitSender();
    }

  private:
    static constexpr std::chrono::seconds kWaitPeriod{20};
    static constexpr std::size_t kWakesSender = 10;

    void AwaitAnalyzer() {
        ++m_nAnalyzerSleeps;
        AwaitIdle(m_bHeld ? 1 : 2);
        Require(m_bHeld || m_nWaiting < kWakesSender, "too many records are queued");
    }

    void AwaitSender() {
        ++m_nSenderSleeps;
        AwaitIdle(2);
        m_nWaiting = 0;
    }

    // Analyzer and sender log a line before they wait; the line counts the waits, and the clock
    // shows when they really wait. Time passes only in whole wait periods, so a waiting thread has
    // a whole period left.
    void AwaitIdle(std::size_t workers) {
        constexpr const char* kAnalyzerSleeps = "CTYEventAnalyzer thread sleep....";
        constexpr const char* kSenderSleeps = "CTYDataSender thread sleep....";
        Require(m_Platform.WaitForLog(kAnalyzerSleeps, m_nAnalyzerSleeps), "the analyzer is busy");
        Require(m_Platform.WaitForLog(kSenderSleeps, m_nSenderSleeps), "the sender is busy");
        Require(m_Clock.AwaitWaiter(kWaitPeriod, std::chrono::seconds(30), workers), "none waits");
        Require(m_Platform.CountLog(kAnalyzerSleeps) == m_nAnalyzerSleeps, "the analyzer woke");
        Require(m_Platform.CountLog(kSenderSleeps) == m_nSenderSleeps, "the sender woke");
    }

    void Require(bool done, const std::string& what) {
        if (!done) {
            throw std::runtime_error(what + " after waits: " + std::to_string(m_nAnalyzerSleeps));
        }
    }

    CFakeBus& m_Bus;
    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    CFakeClock m_Clock;
    std::unique_ptr<CTYDataCollector> m_pCollector;
    std::size_t m_nAnalyzerSleeps = 0;
    std::size_t m_nSenderSleeps = 0;
    std::atomic<std::size_t> m_nWaiting{0};
    // Whether calls stay until they are released.
    std::atomic<bool> m_bHeld{false};
    std::counting_semaphore<> m_Inside{0};
    std::counting_semaphore<> m_Released{0};
};

#endif  // TALLYRA_TESTS_CAPTURE_DRIVER_H
