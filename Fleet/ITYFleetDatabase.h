// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_ITYFLEETDATABASE_H
#define TALLYRA_ITYFLEETDATABASE_H

#include "TYForwardedBatch.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

/// How far a device's store is in the database.
struct TYWatermark {
    std::string device;
    std::string epoch;
    std::int64_t stored = 0;  ///< every entry up to this id that the device sent is stored

    bool operator==(const TYWatermark&) const = default;
};

/// The database failed for a reason that is not the records' fault: it is down, full, locked, or
/// not as it should be. Later it may work.
class CTYDatabaseUnavailable : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Where the collector stores the records of all devices.
///
/// The database remembers the coverage of each device and epoch: the ids whose entries it has, or
/// that the device said it has no entries for (`after`). A record whose key is covered is not
/// stored again. A watermark is where the coverage from id 1 on has its first gap.
///
/// Threads: one.
class ITYFleetDatabase {
  public:
    virtual ~ITYFleetDatabase() = default;

    /// Stores batches in one transaction, each record once, however often it comes.
    /// @param batches  in any order
    /// @return the watermarks of all devices and epochs of the batches, each once
    /// @throws CTYDatabaseUnavailable  if nothing was stored, and it should be tried again
    /// @throws std::exception          if a batch cannot be stored; nothing was stored
    virtual std::vector<TYWatermark> Add(std::span<const TYForwardedBatch> batches) = 0;

    /// @return the indices of batches that may not be added yet, because the database cannot bring
    ///         them into the order of ids, and those before them are missing
    virtual std::vector<std::size_t> TooEarly(std::span<const TYForwardedBatch> /*batches*/) {
        return {};
    }

    /// Counts a message that is not stored.
    /// @param reason   a word such as "malformed"
    /// @param pRange   if not null: a batch without records, whose ids from `after` + 1 to `last`
    ///                 are covered from now on, so that the device does not send them again
    virtual void Refuse(const std::string& reason, const TYForwardedBatch* pRange,
                        std::int64_t last) = 0;

    /// @return the watermark; 0 for an unknown device or epoch
    /// @throws CTYDatabaseUnavailable  if the database cannot tell
    virtual std::int64_t StoredUpTo(const std::string& device, const std::string& epoch) = 0;

    /// Does what is due: makes partitions, drops what is too old. Call it once a minute.
    /// @throws CTYDatabaseUnavailable  as Add
    virtual void Maintain() = 0;
};

#endif  // TALLYRA_ITYFLEETDATABASE_H
