// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPROCESS_H
#define TALLYRA_TYPROCESS_H

#include <cstdint>

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

#endif  // TALLYRA_TYPROCESS_H
