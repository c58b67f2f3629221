// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_PERPROCESS_H
#define TALLYRA_PLATFORM_PERPROCESS_H

#include <sys/types.h>
#include <unistd.h>

#include <atomic>

/// Makes the one instance of a class in a process, on the first call.
///
/// A forked child gets one of its own: threads that do not exist there may hold the locks of its
/// parent's. None is ever destroyed, since a process may exit while another thread uses it.
///
/// Threads: any; takes no lock, which a fork could leave held.
template <class Type>
Type& PerProcess() {
    struct Instance {
        pid_t process;
        /// Keeps the parent's reachable, for leak checkers.
        Instance* pParents;
        Type value;
    };
    static std::atomic<Instance*> s_pCurrent{nullptr};
    const pid_t process = getpid();
    Instance* pCurrent = s_pCurrent.load(std::memory_order_acquire);
    if (pCurrent != nullptr && pCurrent->process == process) {
        return pCurrent->value;
    }
    auto* pMade = new Instance{process, pCurrent, {}};
    if (s_pCurrent.compare_exchange_strong(pCurrent, pMade, std::memory_order_acq_rel)) {
        return pMade->value;
    }
    delete pMade;
    return pCurrent->value;
}

#endif  // TALLYRA_PLATFORM_PERPROCESS_H
