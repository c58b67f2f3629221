// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYWorker.h"

#include "TYLog.h"

#include <new>
#include <utility>

#define TY_LOG_TAG m_Texts.pTag

// A worker has two kinds of callers: those that wake it must not wait for it, and the one that ends
// it must.
//
// A player's thread calls WakeUpThread during playback. It must never block on the worker's locks,
// which may be held while a log line is written. So WakeUpThread only notifies the condition,
// without the wait mutex. The price: a notification is lost if it comes after the worker has looked
// for work and before it waits on the condition. The wait therefore ends after at most 20 s, and
// the worker looks again. A lost wake-up delays records but never loses them.
//
// The owner calls RequestTerminate and waits until the stage is drained. It must not wait 20 s for
// a lost wake-up. So it locks the wait mutex once after it has set the request: the worker then
// either waits on the condition and gets the next notification, or has not locked the mutex yet and
// sees the request before it waits. A second thread, the waker, notifies the worker until it has
// stopped: at once, and then every 500 ms, at most ten times. If the waker cannot be started, the
// owner notifies once itself.
//
// What must always hold:
//
// - The control mutex is held through the joins, so Start, RequestTerminate and Shutdown never
//   overlap. The worker never takes it; the sleeper's lock is the only one taken under it.
// - The request to end is never withdrawn. A worker that is started again only drains.
// - An allocation failure in the stage's work is logged and fails an assertion. Without assertions
//   the worker continues with the next work.
// - A wait has no predicate and may end without work: its log lines tell a wake-up from a timeout.

namespace {

constexpr std::chrono::seconds kWaitPeriod{20};
constexpr std::chrono::milliseconds kWakerPeriod{500};
constexpr int kWakerPasses = 10;

}  // namespace

CTYWorker::CTYWorker(const Texts& texts, Stage stage, ITYClock& clock)
    : m_Texts(texts), m_Stage(std::move(stage)), m_Clock(clock), m_WakerSleeper(clock) {}

bool CTYWorker::Start(const std::function<void()>& beforeThread) {
    CTYLock lock(m_ControlMutex);
    if (!m_bThreadStopped) {
        TY_LOG_ERROR("wrong!! Thread already start");
        return true;
    }
    if (beforeThread) {
        beforeThread();
    }
    m_bThreadStopped = false;
    if (!m_Thread.Start<&CTYWorker::Run>(this)) {
        m_bThreadStopped = true;
        return false;
    }
    TY_LOG_INFO("%s", m_Texts.pStarted);
    return true;
}

void CTYWorker::RequestTerminate() {
    TY_LOG_INFO("%s", m_Texts.pTerminate);
    CTYLock lock(m_ControlMutex);
    if (!m_bRequestTerminate && !m_bThreadStopped) {
        m_bRequestTerminate = true;
        if (m_Thread.IsJoinable()) {
            TY_LOG_INFO("%s", m_Texts.pJoinable);
            JoinWithWaker();
        }
    }
    TY_LOG_INFO("%s", m_Texts.pJoined);
}

void CTYWorker::Shutdown() {
    if (!m_bRequestTerminate) {
        RequestTerminate();
    }
    CTYLock lock(m_ControlMutex);
    m_Thread.Join();
}

void CTYWorker::JoinWithWaker() {
    // From here on, the worker is on the condition or will see the request before it waits.
    { CTYLock lock(m_WaitMutex); }
    CTYThread waker;
    m_WakerSleeper.Reset();
    if (!waker.Start<&CTYWorker::WakeUntilStopped>(this)) {
        WakeUpThread();
    }
    m_Thread.Join();
    m_WakerSleeper.Interrupt();
    waker.Join();
}

void CTYWorker::WakeUntilStopped() {
    for (int pass = 0; pass < kWakerPasses && !m_bThreadStopped; ++pass) {
        TY_LOG_DEBUG("WAKE UP [%d]", pass);
        WakeUpThread();
        m_WakerSleeper.SleepFor(kWakerPeriod);
    }
}

void CTYWorker::Run() {
    while (!m_bThreadStopped) {
        if (m_bRequestTerminate) {
            Drain();
            break;
        }
        if (!m_Stage.hasWork()) {
            Wait();
            if (!m_Stage.bWorksAfterWait || !m_Stage.hasWork()) {
                continue;
            }
        }
        Work();
    }
    TY_LOG_INFO("%s", m_Texts.pFinished);
}

void CTYWorker::Work() {
    try {
        m_Stage.work();
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
    }
}

void CTYWorker::Wait() {
    const ITYClock::TimePoint deadline = m_Clock.SteadyNow() + kWaitPeriod;
    CTYLock lock(m_WaitMutex);
    if (m_bRequestTerminate) {
        return;
    }
    TY_LOG_DEBUG("%s", m_Texts.pSleeping);
    if (m_Clock.WaitUntil(m_WaitCondition, m_WaitMutex, deadline)) {
        TY_LOG_DEBUG("%s", m_Texts.pWoken);
    } else {
        TY_LOG_DEBUG("%s", m_Texts.pTimeout);
    }
}

void CTYWorker::Drain() {
    TY_LOG_DEBUG("%s", m_Texts.pDraining);
    while (m_Stage.hasWork()) {
        Work();
    }
    m_bThreadStopped = true;
}
