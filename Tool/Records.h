// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_RECORDS_H
#define TALLYRA_TOOL_RECORDS_H

#include "Commands.h"
#include "RecordRow.h"
#include "TYMediaData.h"

#include <string>
#include <vector>

/// Reads the records that match a filter; without an order, oldest first.
class CRecordQuery {
  public:
    /// @param all  all columns, for JSON, CSV and exports; otherwise those of the table
    CRecordQuery(CTYDatabase& database, Filter filter, bool all, const Order& order = {});
    CRecordQuery(const CRecordQuery&) = delete;
    CRecordQuery& operator=(const CRecordQuery&) = delete;

    /// Starts with the first record whose id is greater than `after`.
    void Begin(std::int64_t after);
    bool Step() { return m_Statement.Step(); }

    std::int64_t Id() const { return m_Statement.Int(0); }
    RecordFields Fields() const;
    Row Get() const;
    /// @return the record as it was received
    TYMediaData Image() const;

    /// Ends reading and releases the read lock.
    void End() { m_Statement.Reset(); }

    static std::vector<std::string> Columns(bool all);

  private:
    const Filter m_Filter;
    const bool m_bAll;
    CTYStatement m_Statement;
};

/// @return the UUID of the store
std::string EpochOf(CTYDatabase& database);
/// @return the largest id that the store has given to a record, even if that is gone
std::int64_t NewestId(CTYDatabase& database);
/// @return how many records with ids behind `after`, up to `last`, are gone
std::int64_t CountGone(CTYDatabase& database, std::int64_t after, std::int64_t last);

/// Prints existing records up to the filter's limit, then every new one until a signal arrives.
/// Goes on when the service starts a new store in place of the old one.
/// @throws CTYDatabaseError  if the store cannot be read at first
void FollowRecords(const Context& context, const Filter& filter);

#endif  // TALLYRA_TOOL_RECORDS_H
