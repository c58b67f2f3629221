// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlatformThread.h"

#include "GuestDescriptors.h"
#include "GuestThread.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

// A platform thread waits in poll for descriptors that may never become readable. Stopping it must
// wake it, in a process whose descriptors and signals belong to the host.
//
// The usual ways to wake it do not work there. A pipe or eventfd is a descriptor that the host may
// close, or reuse for a file of its own; the thread would then never wake. A signal needs a
// handler, and the host may use any signal number itself: its own handler or sigwait would get the
// signal.
//
// So RequestStop cancels the thread with pthread_cancel, which needs no descriptor and no signal of
// the host. The thread keeps cancellation disabled except around that one poll. It holds no lock
// there, and no resource except those on its stack, which the cancellation unwinds. A cancellation
// before the poll stays pending and takes effect when the next poll begins. RequestStop also sets
// the stop flag, which ends the pause; the body's loop checks it in each turn.
//
// What must always hold:
// - The thread is joined, never detached: the owner's memory is in use until then.
// - m_nProcess names the process that started the thread. A forked child compares it with its own
//   identifier, and neither cancels nor joins a thread that it does not have.
// - The body never waits for a descriptor except through AwaitReadable.

namespace {

thread_local const CPlatformThread* t_pRunning = nullptr;

}  // namespace

bool CPlatformThread::Start(void (*pBody)(void* pContext), void* pContext) {
    m_pBody = pBody;
    m_pContext = pContext;
    m_bStop = false;
    // Set first: the thread may read it before this call returns.
    m_nProcess = getpid();
    const bool started = StartGuestThread(&m_Thread, &Main, this) == 0;
    if (!started) {
        m_nProcess = 0;
    }
    return started;
}

void* CPlatformThread::Main(void* pThread) {
    auto* pThis = static_cast<CPlatformThread*>(pThread);
    UnblockFaults();
    UseBatchScheduling();
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
