// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYConnectionCheck.h"

#include "TYLimits.h"
#include "TYLog.h"

#include <new>
#include <utility>

#define TY_LOG_TAG TY_TAG_UTIL

namespace {

constexpr std::chrono::seconds kPollPeriod{1};

}  // namespace

CTYConnectionCheck::CTYConnectionCheck(Backlog backlog, ITYClock& clock)
    : m_Backlog(std::move(backlog)), m_Sleeper(clock) {}

void CTYConnectionCheck::Start(CTYServiceProxy& proxy, std::function<void(bool)> callback) {
    Stop();
    m_bStopConnectionCheck = false;
    m_Sleeper.Reset();
    m_pProxy = &proxy;
    m_Callback = std::move(callback);
    if (!m_Thread.Start<&CTYConnectionCheck::CheckConnection>(this)) {
        ReportNoService();
    }
}

void CTYConnectionCheck::Stop() {
    m_bStopConnectionCheck = true;
    m_Sleeper.Interrupt();
    m_Thread.Join();
}

// Out of memory here: stop collecting.
void CTYConnectionCheck::CheckConnection() {
    try {
        if (AwaitService()) {
            m_Callback(true);
            return;
        }
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
    }
    ReportNoService();
}

void CTYConnectionCheck::ReportNoService() {
    TY_LOG_ERROR("stop connection checking and stop logging");
    m_Callback(false);
    m_Backlog.drop();
}

bool CTYConnectionCheck::AwaitService() {
    m_pProxy->IsConnected();
    m_pProxy->Kick();
    while (!m_bStopConnectionCheck) {
        if (m_pProxy->IsConnected()) {
            if (m_bStopConnectionCheck) {
                return false;
            }
            TY_LOG_INFO("service is connected!");
            m_pProxy->SetTimeoutMs(TYLimits::kReplyTimeoutMs);
            return true;
        }
        if (GiveUpWaiting()) {
            return false;
        }
        m_pProxy->Kick();
        m_Sleeper.SleepFor(kPollPeriod);
    }
    return false;
}

bool CTYConnectionCheck::GiveUpWaiting() {
    if (m_Backlog.size() <= TYLimits::kMaxWaitingRecords) {
        return false;
    }
    TY_LOG_ERROR("Max log count exceed.");
    m_bStopConnectionCheck = true;
    return true;
}
