// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYFORWARDEDBATCH_H
#define TALLYRA_TYFORWARDEDBATCH_H

#include "TYMediaData.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The records of one message: entries of a device's store with consecutive ids.
///
/// A batch without records says that the store has no entries left between `after` and `first`.
///
/// A record's key in the fleet is device, epoch and id. Ids never repeat within an epoch. Records
/// that a device recovered from a damaged store keep the key that they had there (`origin`), so
/// that those sent before the damage are not stored twice.
struct TYForwardedBatch {
    /// Where a recovered record was before.
    struct Origin {
        std::string epoch;       ///< of the damaged store
        std::int64_t first = 0;  ///< id of the first record there; the others follow
    };

    std::string device;
    std::string epoch;       ///< of the device's store, a UUID in its canonical form
    std::int64_t after = 0;  ///< the store has no unsent entry between this id and `first`
    std::int64_t first = 0;  ///< id of the first record
    std::vector<TYMediaData> records;
    std::vector<std::optional<std::string>> urls;  ///< one for each record; nothing: it has none
    std::vector<std::int64_t> arrivals;  ///< at the device's service: nanoseconds since the epoch
    std::optional<Origin> origin;

    std::int64_t Last() const { return first + static_cast<std::int64_t>(records.size()) - 1; }
    /// @return the epoch of the records' keys
    const std::string& KeyEpoch() const { return origin ? origin->epoch : epoch; }
    /// @return the id in the key of the first record
    std::int64_t KeyFirst() const { return origin ? origin->first : first; }
};

#endif  // TALLYRA_TYFORWARDEDBATCH_H
