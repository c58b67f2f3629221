// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYFORWARDINGSTATE_H
#define TALLYRA_TYFORWARDINGSTATE_H

#include "TYDatabase.h"
#include "TYSpool.h"
#include "TYStreamState.h"

#include <cstdint>
#include <string>
#include <vector>

/// How far a device's entries have come, in the tables forwarding and forwarding_batches of its
/// store. A batch is a row from before it is first sent until it is stored in the database of the
/// fleet, so that it is sent again with the same bounds.
///
/// Throws CTYDatabaseError when SQLite fails. What changes several rows runs in the caller's
/// transaction.
///
/// Threads: one, that of the database.
class CTYForwardingState {
  public:
    /// Makes the row in forwarding if it is missing: from then on, retention knows that this device
    /// forwards.
    explicit CTYForwardingState(CTYDatabase& database);

    /// @return every entry up to this id that may leave the device is in the database of the fleet
    std::int64_t Stored();
    /// @return every such entry up to this id was acknowledged by the servers
    std::int64_t Sent();
    /// @return end of the last batch
    std::int64_t LastBatch();

    void Add(const CTYSpool::Bounds& bounds);
    /// @return the first batches that are not acknowledged, in the order of ids
    std::vector<CTYSpool::Bounds> Unsent(int atMost);
    /// @return whether a batch is acknowledged, but not stored
    bool IsUnstored();

    /// Notes that the servers have a batch.
    void Acknowledge(std::int64_t first, std::uint64_t sequence);
    /// Notes that everything up to this id is stored. A lower one than before is ignored.
    void MoveStored(std::int64_t stored);
    /// Goes back to what is stored: batches that the stream does not have any more are to be sent
    /// again. If it is less than was stored before, the database of the fleet was replaced by an
    /// older one, and all behind it is to be sent again.
    /// @return the number of batches to send again
    int GoBack(std::int64_t stored, const TYStreamState& stream);

    /// @return bytes sent at this day, a number of days since the epoch
    std::int64_t BytesAt(std::int64_t day);
    void AddBytes(std::int64_t day, std::int64_t bytes);

  private:
    std::int64_t Number(const char* pSql) { return m_Database.Number(pSql); }
    void UpdateSent();

    CTYDatabase& m_Database;
    CTYStatement m_Add;
    CTYStatement m_FindUnsent;
    CTYStatement m_Acknowledge;
    CTYStatement m_UpdateSent;
    CTYStatement m_MoveStored;
    CTYStatement m_DropStored;
};

#endif  // TALLYRA_TYFORWARDINGSTATE_H
