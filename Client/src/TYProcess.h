// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPROCESS_H
#define TALLYRA_TYPROCESS_H

#include <atomic>
#include <cstdint>
#include <memory>

/// Remembers the process that made an object, so that the object notices when it is used in a
/// forked child, where its threads are gone and its locks may stay locked. The check is a load; the
/// source explains how.
///
/// Threads: any.
class CTYProcess {
  public:
    /// @return a number that differs from those of all ancestors of this process
    static std::uint32_t Current() noexcept;

    /// @return false in a forked child of the process that made this object
    bool IsCurrent() const noexcept { return m_nMaker == Current(); }

  private:
    const std::uint32_t m_nMaker = Current();
};

/// One object per process, created on first use; for static storage. A forked child creates its
/// own, because its parent's locks may stay locked there. The objects are never destroyed: a thread
/// or the platform may still use one while the host exits.
///
/// Threads: any; lock-free.
template <class Type>
class CTYPerProcess {
  public:
    /// @throws std::bad_alloc on a process's first call
    Type& Get() {
        Slot* pCurrent = m_pCurrent;
        if (pCurrent != nullptr && pCurrent->process.IsCurrent()) {
            return pCurrent->object;
        }
        auto mine = std::make_unique<Slot>();
        mine->pInherited = pCurrent;
        // The second of two threads uses the first one's object.
        if (m_pCurrent.compare_exchange_strong(pCurrent, mine.get())) {
            return mine.release()->object;
        }
        return pCurrent->object;
    }

  private:
    struct Slot {
        CTYProcess process;
        // Keeps the parent's object reachable for leak checkers.
        Slot* pInherited = nullptr;
        Type object;
    };

    std::atomic<Slot*> m_pCurrent{nullptr};
};

#endif  // TALLYRA_TYPROCESS_H
