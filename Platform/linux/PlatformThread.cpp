// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlatformThread.h"

#include "GuestDescriptors.h"
#include "SignalsBlocked.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>

namespace {

constexpr std::size_t STACK_SIZE = std::size_t{256} * 1024;
constexpr std::size_t LARGEST_STACK_SIZE = std::size_t{8} * 1024 * 1024;

// Ignored by default: it harms no host, even if a callback unblocks it.
constexpr int WAKE_SIGNAL = SIGURG;

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
    for (std::size_t size = STACK_SIZE; result == EINVAL && size <= LARGEST_STACK_SIZE; size *= 2) {
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
    pthread_kill(m_Thread, WAKE_SIGNAL);
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

// A wake descriptor that is readable without a request: a signal that the host leaves pending.
CPlatformThread::Wait CPlatformThread::AwaitReadable(const CGuestDescriptors& descriptors) const {
    std::array<pollfd, 2> fds = {pollfd{descriptors.At(0), POLLIN, 0},
                                 pollfd{descriptors.At(1), POLLIN, 0}};
    while (!IsStopping() && poll(fds.data(), fds.size(), -1) < 0) {
        if (errno != EINTR) {
            return Wait::IMPOSSIBLE;
        }
    }
    if (IsStopping() || !descriptors.AreOurs()) {
        return Wait::STOPPED_OR_LOST;
    }
    return fds[0].revents != 0 ? Wait::READABLE : Wait::IMPOSSIBLE;
}

int CPlatformThread::MakeWakeDescriptor() {
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, WAKE_SIGNAL);
    return signalfd(-1, &wake, SFD_CLOEXEC | SFD_NONBLOCK);
}
