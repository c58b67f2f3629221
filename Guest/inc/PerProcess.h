// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GUEST_PERPROCESS_H
#define TALLYRA_GUEST_PERPROCESS_H

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <memory>

/// Remembers the process that made an object, by its process id.
class CProcessId {
  public:
    bool IsCurrent() const noexcept { return m_nMaker == getpid(); }

  private:
    pid_t m_nMaker = getpid();
};

/// One object per process, made on the first call. For static storage.
///
/// A forked child gets an object of its own. If a thread of the parent held a lock of the inherited
/// object at the fork, no thread releases that lock in the child. No object is ever destroyed,
/// because another thread may use it while the host's process exits.
///
/// Threads: any. Takes no lock, because a fork could leave it held.
///
/// @tparam Process  has IsCurrent(), which is true in the process that made the object
template <class Type, class Process = CProcessId>
class CPerProcess {
  public:
    /// @throws std::bad_alloc on a process's first call
    Type& Get() {
        Slot* pCurrent = m_pCurrent;
        if (pCurrent != nullptr && pCurrent->process.IsCurrent()) {
            return pCurrent->object;
        }
        auto mine = std::make_unique<Slot>();
        mine->pParents = pCurrent;
        // If two threads race, the second takes the object of the first.
        if (m_pCurrent.compare_exchange_strong(pCurrent, mine.get())) {
            return mine.release()->object;
        }
        return pCurrent->object;
    }

  private:
    struct Slot {
        Process process;
        // Keeps the parent's object reachable, for leak checkers.
        Slot* pParents = nullptr;
        Type object;
    };

    std::atomic<Slot*> m_pCurrent{nullptr};
};

#endif  // TALLYRA_GUEST_PERPROCESS_H
