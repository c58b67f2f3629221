// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPROCESS_H
#define TALLYRA_TYPROCESS_H

#include "PerProcess.h"

#include <cstdint>

/// Remembers the process that made an object. In a forked child the object's threads do not exist
/// and its locks may stay locked, so the object has to notice that it is used there. The check is
/// one memory read; the source explains how.
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

/// A CPerProcess whose Get costs a memory read instead of a system call.
template <class Type>
using CTYPerProcess = CPerProcess<Type, CTYProcess>;

#endif  // TALLYRA_TYPROCESS_H
