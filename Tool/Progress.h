// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_PROGRESS_H
#define TALLYRA_TOOL_PROGRESS_H

#include "TYDatabase.h"

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

/// Shows that a long operation on a store goes on: its name, the rows so far, and its time. Prints
/// one line after a second, and updates it five times a second; the destructor erases it. Prints
/// nothing unless standard error is a terminal.
///
/// Threads: that of the database.
class CProgress {
  public:
    /// @param errors    standard error
    /// @param database  is asked for the time while its statements run; must outlive this object
    /// @param what      such as "reading playbacks"
    /// @param isShown   false if the output is printed to the same terminal
    CProgress(std::ostream& errors, CTYDatabase& database, std::string what, bool isShown = true);
    ~CProgress();
    CProgress(const CProgress&) = delete;
    CProgress& operator=(const CProgress&) = delete;

    void Count() { ++m_nRows; }
    /// Erases the line, so that another can be printed.
    void Erase();

  private:
    using Clock = std::chrono::steady_clock;

    static int OnSteps(void* pSelf);
    void Update();

    std::ostream& m_Errors;
    CTYDatabase& m_Database;
    const std::string m_strWhat;
    const bool m_bShown;
    const Clock::time_point m_Begin = Clock::now();
    Clock::time_point m_Next;
    std::int64_t m_nRows = 0;
    bool m_bPrinted = false;
};

#endif  // TALLYRA_TOOL_PROGRESS_H
