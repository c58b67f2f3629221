// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_RECORDS_H
#define TALLYRA_TOOL_RECORDS_H

#include "Commands.h"
#include "TYMediaData.h"

#include <string>
#include <vector>

/// Reads the records that a filter leaves, oldest first.
class CRecordQuery {
  public:
    /// @param all  all columns, as other systems want them; else those for people
    CRecordQuery(CTYDatabase& database, Filter filter, bool all);
    CRecordQuery(const CRecordQuery&) = delete;
    CRecordQuery& operator=(const CRecordQuery&) = delete;

    /// Begins with the records behind a number.
    void Begin(std::int64_t after);
    bool Step() { return m_Statement.Step(); }

    std::int64_t Id() const { return m_Statement.Int(0); }
    Row Get() const;
    /// @return the record as it came
    TYMediaData Image() const;

    static std::vector<std::string> Columns(bool all);

  private:
    const Filter m_Filter;
    const bool m_bAll;
    CTYStatement m_Statement;
};

#endif  // TALLYRA_TOOL_RECORDS_H
