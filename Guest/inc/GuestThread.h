// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GUEST_GUESTTHREAD_H
#define TALLYRA_GUEST_GUESTTHREAD_H

#include "SignalsBlocked.h"

#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <cstddef>

// A log line takes two buffers of 4 KiB on the Linux platform; the rest is for other platforms, and
// is address space until it is used.
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
/// The thread blocks all signals but synchronous faults, which it has to unblock itself if its
/// creator blocks them: see UnblockFaults. Its stack does not depend on the host's
/// default, which may be smaller than a log line needs. It starts at 256 KiB and doubles up to 8
/// MiB while the C library returns EINVAL: the thread-local variables of all libraries of the host
/// are on that stack, and must fit.
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
/// it, and one that inherited a player's real-time policy would keep the processor. Where the
/// kernel refuses, the policy stays as it is.
inline void UseBatchScheduling() {
    const sched_param none{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
}

#endif  // TALLYRA_GUEST_GUESTTHREAD_H
