// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Driver.h"

#include <unistd.h>

#include <stdexcept>

namespace {

constexpr const char* kAnalyzerSleeps = "CTYEventAnalyzer thread sleep....";
constexpr const char* kSenderSleeps = "CTYDataSender thread sleep....";
constexpr std::chrono::seconds kWaitPeriod{20};
constexpr std::size_t kWakesSender = 10;
constexpr std::size_t kStopRecords = 2;

std::atomic<pid_t> g_ThreadId{1};

}  // namespace

extern "C" pid_t gettid() noexcept {
    return g_ThreadId;
}

void SetThreadId(pid_t id) {
    g_ThreadId = id;
}

CDriver::CDriver(CFakeBus& bus, const char* appId, int playerId) : m_Bus(bus) {
    m_Platform.ClearLog();
    // The first line that the analyzer logs for a record that it passes on.
    m_Platform.onLog = [this](const CPlatformDouble::LogLine& line) {
        m_nWaiting += line.text.starts_with("pUrl ") ? 1 : 0;
    };
    m_Bus.onCall = [this](const CFakeBus::Call& /*call*/) { StayWhileHeld(); };
    m_pCollector = std::make_unique<CTYDataCollector>(appId, static_cast<TY_PLAYER_ID>(playerId),
                                                      m_Bus, m_Clock);
    ++m_nAnalyzerSleeps;
    ++m_nSenderSleeps;
    AwaitIdle(2);
}

CDriver::~CDriver() {
    LetGo();
    m_pCollector.reset();
    m_Bus.onCall = nullptr;
    m_Platform.onLog = nullptr;
}

void CDriver::Event(int event, int param1, int param2) {
    m_pCollector->SendMediaEvent(static_cast<TY_EVENT_TYPE>(event), param1, param2);
    AwaitAnalyzer();
}

void CDriver::Error(int error) {
    m_pCollector->SendMediaError(static_cast<TY_ERROR_TYPE>(error));
    AwaitAnalyzer();
}

void CDriver::Execute(int code, int value, const std::string& text) {
    Require(m_pCollector->Execute(code, value, text), "Execute was refused");
    AwaitAnalyzer();
}

void CDriver::Stop() {
    Require(m_nWaiting + kStopRecords < kWakesSender, "too many records are queued before a STOP");
    m_pCollector->SendMediaEvent(TY_EVENT_STOP, 0, 0);
    ++m_nAnalyzerSleeps;
    AwaitSender();
}

void CDriver::Flush() {
    m_Clock.Advance(kWaitPeriod);
    ++m_nAnalyzerSleeps;
    AwaitSender();
}

void CDriver::FlushAndHold() {
    {
        const std::lock_guard lock(m_Mutex);
        m_bHold = true;
    }
    m_Clock.Advance(kWaitPeriod);
    {
        std::unique_lock lock(m_Mutex);
        const auto isInside = [this] { return m_bInside; };
        Require(m_Changed.wait_for(lock, std::chrono::seconds(30), isInside), "no call was made");
    }
    m_bHeld = true;
    AwaitAnalyzer();
}

void CDriver::Release() {
    LetGo();
    m_bHeld = false;
    AwaitSender();
}

void CDriver::LetGo() {
    std::unique_lock lock(m_Mutex);
    m_bHold = false;
    m_Changed.notify_all();
    m_Changed.wait(lock, [this] { return !m_bInside; });
}

void CDriver::StayWhileHeld() {
    std::unique_lock lock(m_Mutex);
    m_bInside = m_bHold;
    m_Changed.notify_all();
    m_Changed.wait(lock, [this] { return !m_bHold; });
    m_bInside = false;
    m_Changed.notify_all();
}

void CDriver::AwaitAnalyzer() {
    ++m_nAnalyzerSleeps;
    AwaitIdle(m_bHeld ? 1 : 2);
    Require(m_bHeld || m_nWaiting < kWakesSender, "too many records are queued");
}

void CDriver::AwaitSender() {
    ++m_nSenderSleeps;
    AwaitIdle(2);
    m_nWaiting = 0;
}

// Analyzer and sender log a line before they wait; the line counts the waits, and the clock shows
// when they really wait. Time passes only in whole wait periods, so a waiting thread has a whole
// period left.
void CDriver::AwaitIdle(std::size_t workers) {
    Require(m_Platform.WaitForLog(kAnalyzerSleeps, m_nAnalyzerSleeps), "the analyzer is busy");
    Require(m_Platform.WaitForLog(kSenderSleeps, m_nSenderSleeps), "the sender is busy");
    Require(m_Clock.AwaitWaiter(kWaitPeriod, std::chrono::seconds(30), workers), "no thread waits");
    Require(m_Platform.CountLog(kAnalyzerSleeps) == m_nAnalyzerSleeps, "the analyzer woke");
    Require(m_Platform.CountLog(kSenderSleeps) == m_nSenderSleeps, "the sender woke");
}

void CDriver::Require(bool done, const std::string& what) {
    if (!done) {
        throw std::runtime_error(what + ", after " + std::to_string(m_nAnalyzerSleeps) + " waits");
    }
}
