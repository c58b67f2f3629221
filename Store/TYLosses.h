// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYLOSSES_H
#define TALLYRA_TYLOSSES_H

#include "TYDatabase.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

/// Why a record that reached the service is not in the store.
enum class TYLossReason {
    RATE,     ///< its user sent more records per second than allowed
    BYTES,    ///< its message was too big, or its user sent too many bytes per second
    BUSY,     ///< dropped from the queue of waiting calls, because the memory for peers was used up
    FULL,     ///< could not be stored: full disk, lock, damaged file, unbounded log
    POLICY,   ///< the policy refuses its application
    BINDING,  ///< its application is bound to other users
    BAD_BATCH,  ///< its batch was malformed
    SENDER,     ///< the bus could not tell who sent it
    AGE,        ///< dropped because it was too old, before a collector had it
    ROOM,       ///< dropped because the store was too big, before a collector had it
    DAMAGED,    ///< could not be read from a damaged store
    FORGOTTEN,  ///< deleted by an operator
    COUNT
};

/// @return the reason as the table losses holds it, such as "bad_batch"
const char* TextOf(TYLossReason reason);

/// Numbers of lost records by reason and application, until they are written to a store.
///
/// Keeps at most kMaxApplications applications apart, so that peers that invent identifiers cannot
/// make it grow. Losses of further applications count for the application ''.
///
/// Threads: one.
class CTYLosses {
  public:
    static constexpr std::size_t kMaxApplications = 64;

    struct Loss {
        std::int64_t records = 0;
        std::int64_t playbacks = 0;
    };
    using Key = std::pair<TYLossReason, std::string>;

    /// Adds a loss. Does nothing if both numbers are 0.
    /// @param application  empty if it is unknown, or if there are several
    /// @param playbacks    playbacks of which nothing is left
    void Count(TYLossReason reason, const std::string& application, std::int64_t records,
               std::int64_t playbacks = 0);

    bool IsEmpty() const { return m_Losses.empty(); }
    void Clear();
    const std::map<Key, Loss>& All() const { return m_Losses; }

  private:
    std::map<Key, Loss> m_Losses;
    std::set<std::string> m_Applications;  ///< those of m_Losses, without ''
};

/// Adds losses to the table losses, within the caller's transaction. The table has one row an hour
/// for each reason and application, and at most 4096 rows: beyond that, the older half is merged to
/// one row for each reason.
/// @param wall  nanoseconds since the epoch
void WriteLosses(CTYDatabase& database, const CTYLosses& losses, std::int64_t wall);

#endif  // TALLYRA_TYLOSSES_H
