// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GUEST_GUESTTHREAD_H
#define TALLYRA_GUEST_GUESTTHREAD_H

#include "SignalsBlocked.h"

#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <cstddef>

// On the Linux platform a log line takes two buffers of 4 KiB. The rest is for other platforms, and
// takes only address space until a thread uses it.
inline constexpr std::size_t kGuestStackBytes = std::size_t{256} << 10;
inline constexpr std::size_t kLargestGuestStackBytes = std::size_t{8} << 20;

inline int CreateThreadWithStack(std::size_t size, pthread_t* pThread, void* (*pBody)(void*),
                                 void* pData) {
    pthread_attr_t attributes;
    if (const int error = pthread_attr_init(&attributes); error != 0) {
        return error;
    }
    pthread_attr_setstacksize(&attributes, size);
    const int error = pthread_create(pThread, &attributes, pBody, pData);
    pthread_attr_destroy(&attributes);
    return error;
}

/// Starts a joinable thread in a host's process. Allocates nothing on the heap.
///
/// The thread blocks all signals but synchronous faults; if its creator blocks those, it inherits
/// that too, so its body calls UnblockFaults first. Its stack does not depend on the host's
/// default, which may be smaller than a log line needs. The size starts at 256 KiB and doubles up
/// to 8 MiB while the C library returns EINVAL. It returns EINVAL if the thread-local variables of
/// the host's libraries, which are on that stack, do not fit.
///
/// @return 0 or an errno value
inline int StartGuestThread(pthread_t* pThread, void* (*pBody)(void*), void* pData) {
    const CSignalsBlocked signalsBlocked;
    int error = EINVAL;
    for (std::size_t size = kGuestStackBytes; error == EINVAL && size <= kLargestGuestStackBytes;
         size *= 2) {
        error = CreateThreadWithStack(size, pThread, pBody, pData);
    }
    return error;
}

/// Unblocks synchronous faults on the calling thread, which a host may have blocked on the thread
/// that created it. The kernel kills a process whose thread faults with that signal blocked,
/// without calling the host's crash handler or a sandbox's handler of SIGSYS.
inline void UnblockFaults() {
    sigset_t faults;
    sigemptyset(&faults);
    for (const int fault : kFaultSignals) {
        sigaddset(&faults, fault);
    }
    pthread_sigmask(SIG_UNBLOCK, &faults, nullptr);
}

/// Moves the calling thread to SCHED_BATCH. A SCHED_OTHER thread may preempt the player that woke
/// it, and a thread that inherited a player's real-time policy may keep the processor from it. If
/// the kernel refuses, the policy does not change.
inline void UseBatchScheduling() {
    const sched_param none{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
}

#endif  // TALLYRA_GUEST_GUESTTHREAD_H
