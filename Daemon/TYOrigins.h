// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYORIGINS_H
#define TALLYRA_TYORIGINS_H

#include "TYDatabase.h"

#include <cstdint>
#include <string>
#include <vector>

/// Consecutive entries that were consecutive in another store, as a row of the table origins.
struct TYOrigin {
    std::int64_t first = 0;
    std::int64_t last = 0;
    std::string device;       ///< empty: the device of this store
    std::string epoch;        ///< of the other store
    std::int64_t origin = 0;  ///< the id there of the first entry
};

/// Finds out by which keys a collector may know the entries of a damaged store. Trusts nothing in
/// it: what cannot be read or makes no sense is left out.
///
/// Threads: one.
class CTYOrigins {
  public:
    /// @param damaged  must live longer than the object
    explicit CTYOrigins(CTYDatabase& damaged);

    /// @param ids  of entries of the damaged store, ascending
    /// @return their origins. `first` and `last` are indexes into the ids. Entries that were
    ///         themselves recovered have the origin that they had. Those whose epoch is unknown are
    ///         left out.
    std::vector<TYOrigin> Of(const std::vector<std::int64_t>& ids);

  private:
    std::vector<TYOrigin> Older(std::int64_t first, std::int64_t last);

    CTYDatabase& m_Damaged;
    std::string m_strEpoch;  ///< empty if it is unknown
};

/// Writes origins, within the caller's transaction.
/// @param origins  as CTYOrigins::Of returns them
/// @param first    the id in the store of the entry with the index 0
void WriteOrigins(CTYDatabase& store, const std::vector<TYOrigin>& origins, std::int64_t first);

#endif  // TALLYRA_TYORIGINS_H
