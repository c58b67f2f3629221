// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYThread.h"

#include "TYLog.h"
#include "TYSignalsBlocked.h"

#include <sched.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <new>

#define TY_LOG_TAG TY_TAG

namespace {

// A log line takes two buffers of 4 KiB on the Linux platform; the rest is reserve for other
// platforms, and costs only address space until it is used.
constexpr std::size_t kStackBytes = std::size_t{256} << 10;
constexpr std::size_t kLargestStackBytes = std::size_t{8} << 20;

// A SCHED_OTHER thread may preempt the player that woke it, and one that inherited a player's
// real-time priority would keep the processor. If the system refuses, the thread keeps its policy.
void UseBatchScheduling() {
    const sched_param none{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
}

}  // namespace

CTYThread::~CTYThread() {
    if (m_bJoinable) {
        std::terminate();
    }
}

bool CTYThread::Start(Function function, void* pData) {
    Join();
    m_pFunction = function;
    m_pData = pData;
    const int error = Create();
    if (error != 0) {
        TY_LOG_ERROR("can't start a thread. error : %s", std::strerror(error));
    }
    m_bJoinable = error == 0;
    return m_bJoinable;
}

// The C library places the thread-local variables of all the host's libraries on the stack, and
// fails with EINVAL when the stack is too small for them.
int CTYThread::Create() {
    int error = EINVAL;
    for (std::size_t size = kStackBytes; error == EINVAL && size <= kLargestStackBytes; size *= 2) {
        error = CreateWithStack(size);
    }
    return error;
}

int CTYThread::CreateWithStack(std::size_t size) {
    const CTYSignalsBlocked signalsBlocked;
    pthread_attr_t attributes;
    if (const int error = pthread_attr_init(&attributes); error != 0) {
        return error;
    }
    pthread_attr_setstacksize(&attributes, size);
    const int error = pthread_create(&m_Thread, &attributes, &CTYThread::Run, this);
    pthread_attr_destroy(&attributes);
    return error;
}

void* CTYThread::Run(void* pThread) {
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
