// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYThread.h"

#include "GuestThread.h"
#include "TYLog.h"

#include <cstring>
#include <exception>
#include <new>

#define TY_LOG_TAG TY_TAG

CTYThread::~CTYThread() {
    if (m_bJoinable) {
        std::terminate();
    }
}

bool CTYThread::Start(Function function, void* pData) {
    Join();
    m_pFunction = function;
    m_pData = pData;
    const int error = StartGuestThread(&m_Thread, &CTYThread::Run, this);
    if (error != 0) {
        TY_LOG_ERROR("can't start a thread. error : %s", std::strerror(error));
    }
    m_bJoinable = error == 0;
    return m_bJoinable;
}

void* CTYThread::Run(void* pThread) {
    UnblockFaults();
    UseBatchScheduling();
    const auto* pThis = static_cast<const CTYThread*>(pThread);
    try {
        pThis->m_pFunction(pThis->m_pData);
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
    }
    return nullptr;
}

void CTYThread::Join() {
    if (m_bJoinable) {
        pthread_join(m_Thread, nullptr);
        m_bJoinable = false;
    }
}
