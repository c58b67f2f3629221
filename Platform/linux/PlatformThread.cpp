// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlatformThread.h"

#include "GuestDescriptors.h"
#include "SignalsBlocked.h"

#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>

namespace {

constexpr std::size_t kStackSize = std::size_t{256} * 1024;
constexpr std::size_t kLargestStackSize = std::size_t{8} * 1024 * 1024;

thread_local const CPlatformThread* t_pRunning = nullptr;

}  // namespace

// The C library takes the thread's own variables, of all libraries of the host, from the stack: it
// refuses a stack that has no room for them.
bool CPlatformThread::Start(void (*pBody)(void* pContext), void* pContext) {
    m_pBody = pBody;
    m_pContext = pContext;
    m_bStop = false;
    // The thread asks for it before this call is over.
    m_nProcess = getpid();
    const CSignalsBlocked signalsBlocked;
    int result = EINVAL;
    for (std::size_t size = kStackSize; result == EINVAL && size <= kLargestStackSize; size *= 2) {
        result = Create(size);
    }
    if (result != 0) {
        m_nProcess = 0;
    }
    return result == 0;
}

int CPlatformThread::Create(std::size_t stackSize) {
    pthread_attr_t attributes;
    if (const int result = pthread_attr_init(&attributes); result != 0) {
        return result;
    }
    int result = pthread_attr_setstacksize(&attributes, stackSize);
    if (result == 0) {
        result = pthread_create(&m_Thread, &attributes, &Main, this);
    }
    pthread_attr_destroy(&attributes);
    return result;
}

// The thread that started this one may block synchronous faults itself.
void* CPlatformThread::Main(void* pThread) {
    auto* pThis = static_cast<CPlatformThread*>(pThread);
    const sigset_t faults = SynchronousFaults();
    pthread_sigmask(SIG_UNBLOCK, &faults, nullptr);
    // Not a player's real-time policy, which a thread inherits; see the library's threads.
    const sched_param none{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    t_pRunning = pThis;
    pThis->m_pBody(pThis->m_pContext);
    return nullptr;
}

void CPlatformThread::RequestStop() {
    if (!IsStarted()) {
        return;
    }
    {
        const std::lock_guard lock(m_Mutex);
        m_bStop = true;
        m_Stopping.notify_all();
    }
    pthread_cancel(m_Thread);
}

void CPlatformThread::Join() {
    if (IsStarted()) {
        pthread_join(m_Thread, nullptr);
        m_nProcess = 0;
    }
}

bool CPlatformThread::TryJoin() {
    if (IsStarted() && pthread_tryjoin_np(m_Thread, nullptr) == 0) {
        m_nProcess = 0;
    }
    return !IsStarted();
}

bool CPlatformThread::IsStarted() const {
    return m_nProcess == getpid();
}

bool CPlatformThread::RunsHere() const {
    return t_pRunning == this && IsStarted();
}

void CPlatformThread::Pause() {
    std::unique_lock lock(m_Mutex);
    m_Stopping.wait_for(lock, std::chrono::seconds(1), [this] { return IsStopping(); });
}

CPlatformThread::Wait CPlatformThread::AwaitReadable(const CGuestDescriptors& descriptors) const {
    pollfd first{descriptors.At(0), POLLIN, 0};
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    const int ready = poll(&first, 1, -1);
    const int error = errno;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    if (ready < 0 && error != EINTR) {
        return Wait::IMPOSSIBLE;
    }
    return IsStopping() || !descriptors.AreOurs() ? Wait::STOPPED_OR_LOST : Wait::READABLE;
}
