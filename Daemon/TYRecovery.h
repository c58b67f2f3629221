// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYRECOVERY_H
#define TALLYRA_TYRECOVERY_H

#include "TYAside.h"
#include "TYDamagedStore.h"
#include "TYKeptRows.h"
#include "TYStore.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// Copies what can be read of damaged stores into the store that has replaced them, in bounded
/// steps and across restarts, see TYRecovery.cpp.
///
/// Every operation throws CTYDatabaseError if the new store fails, and may then be called again.
///
/// Threads: one.
class CTYRecovery {
  public:
    /// @param files  the damaged stores, oldest first, as CTYAside::Marked returns them
    CTYRecovery(const CTYAside& aside, std::vector<std::string> files);

    /// Takes over the rows to keep, unless that was done before. Call it before the store is used.
    /// @param known  what was read of the settings while the damaged store was open, if it was
    void Begin(CTYStore& store, CTYKeptRows known);

    /// Copies records for at most about 50 ms.
    /// @return whether to call again
    bool Step(CTYStore& store);

  private:
    bool IsBegun(CTYDatabase& database, const std::string& file) const;
    void OpenNext(CTYStore& store);
    void CopySome(CTYStore& store);
    void SkipDamage();
    void Finish(CTYStore& store);
    CTYLosses Missing(CTYDatabase& database);
    void Report(std::int64_t recovered, std::int64_t missing, bool isKnown) const;

    const CTYAside& m_Aside;
    std::vector<std::string> m_Files;  ///< the one in work is the first
    std::unique_ptr<CTYDamagedStore> m_pDamaged;
    std::int64_t m_nNext = 0;
    std::int64_t m_nLast = 0;
    std::int64_t m_nSpan = 1;
};

#endif  // TALLYRA_TYRECOVERY_H
