// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_PROGRESS_H
#define TALLYRA_TOOL_PROGRESS_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>

/// Shows that a long operation on a store goes on: its name, the rows so far, and its time. Prints
/// one line after a second, and updates it five times a second; the destructor erases it. Prints
/// nothing unless standard error is a terminal.
///
/// Threads: one calls it; another one prints, since SQLite may be busy with a single step for as
/// long as a VACUUM takes.
class CProgress {
  public:
    /// @param errors   standard error
    /// @param what     such as "reading playbacks"
    /// @param isShown  false if the output is printed to the same terminal
    CProgress(std::ostream& errors, std::string what, bool isShown = true);
    ~CProgress();
    CProgress(const CProgress&) = delete;
    CProgress& operator=(const CProgress&) = delete;

    void Count() { ++m_nRows; }
    /// Erases the line, so that another can be printed.
    void Erase();

  private:
    using Clock = std::chrono::steady_clock;

    void Run();
    void Print();

    std::ostream& m_Errors;
    const std::string m_strWhat;
    const Clock::time_point m_Begin = Clock::now();
    std::atomic<std::int64_t> m_nRows = 0;

    std::mutex m_Mutex;  ///< guards what follows, and printing
    std::condition_variable m_Ended;
    bool m_bEnded = false;
    bool m_bPrinted = false;

    std::thread m_Printer;  ///< none if nothing is shown
};

#endif  // TALLYRA_TOOL_PROGRESS_H
