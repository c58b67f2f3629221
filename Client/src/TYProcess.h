// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPROCESS_H
#define TALLYRA_TYPROCESS_H

#include <atomic>
#include <cstdint>
#include <memory>

/// The process that made an object.
///
/// A host may fork without exec. Its child has the parent's memory and descriptors and none of its
/// threads: locks may be held for ever, a join never returns, and what the child writes to the bus
/// connection goes into the middle of the parent's messages. So an object must know that it stands
/// in a child. It is asked at each call of a player, so the answer has to be cheap: the kernel
/// wipes one page of memory at each fork (MADV_WIPEONFORK), also where no atfork handler runs, and
/// asking is a load. Without that page it is a getpid.
///
/// Threads: any.
class CTYProcess {
  public:
    /// @return a number that this process has, and none of its forebears
    static std::uint32_t Current() noexcept;

    /// @return false in a forked child of the process that made this object
    bool IsCurrent() const noexcept { return m_nMaker == Current(); }

  private:
    const std::uint32_t m_nMaker = Current();
};

/// One object for each process, made on the first call, for static storage. A forked child gets one
/// of its own, since its parent's locks may be held there for ever. None is ever destroyed: a
/// thread or the platform may use it for longer than an exiting host holds its collectors.
///
/// Threads: any, without a lock.
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
        mine->pParents = pCurrent;
        // Of two threads, the second takes the first one's.
        if (m_pCurrent.compare_exchange_strong(pCurrent, mine.get())) {
            return mine.release()->object;
        }
        return pCurrent->object;
    }

  private:
    struct Slot {
        CTYProcess process;
        // Keeps the parent's reachable, for leak checkers.
        Slot* pParents = nullptr;
        Type object;
    };

    std::atomic<Slot*> m_pCurrent{nullptr};
};

#endif  // TALLYRA_TYPROCESS_H
