// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYWorker.h"

#include "TYLog.h"

#include <new>
#include <utility>

#define TY_LOG_TAG m_Texts.pTag

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

// The waker is a thread of its own: this one waits for the worker. The sleeper's lock is the only
// one that is taken under the control mutex.
void CTYWorker::JoinWithWaker() {
    CTYThread waker;
    m_WakerSleeper.Reset();
    if (!waker.Start<&CTYWorker::WakeUntilStopped>(this)) {
        WakeUpThread();
    }
    m_Thread.Join();
    m_WakerSleeper.Interrupt();
    waker.Join();
}

// Once it has had the wait mutex, the worker either waits and hears the notification, or sees the
// request before it waits: deleting a collector need not hang on a wake-up that got lost.
void CTYWorker::WakeUntilStopped() {
    { CTYLock lock(m_WaitMutex); }
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
