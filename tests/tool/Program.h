// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_TOOL_PROGRAM_H
#define TALLYRA_TESTS_TOOL_PROGRAM_H

#include "ChildProcess.h"
#include "Eventually.h"
#include "TemporaryFolder.h"

#include <optional>
#include <string>
#include <vector>

/// What a program left when it ended.
struct Result {
    int code = -1;  ///< -1: it had to be killed
    std::string out;
    std::string err;
};

/// A program that runs with files for its standard input, output and error.
///
/// Threads: as CChildProcess.
class CProgram {
  public:
    /// @param output  where its output goes instead of a file that Out and Finish read
    explicit CProgram(const std::vector<std::string>& arguments, const std::string& input = "",
                      const std::string& output = "");

    /// @return what it has written so far
    std::string Out() const;
    /// @return whether its output came to hold the text, within a bounded time
    bool Prints(const std::string& text) const;
    pid_t Pid() const { return m_Child->Pid(); }
    void Signal(int signal) const { m_Child->Signal(signal); }
    /// Waits for its end, a bounded time.
    Result Finish();

  private:
    CTemporaryFolder m_Folder;
    std::optional<CChildProcess> m_Child;
};

/// Runs a program to its end.
Result RunProgram(const std::vector<std::string>& arguments, const std::string& input = "",
                  const std::string& output = "");

/// Runs the command to its end, with a terminal as its output.
/// @return all that the terminal was sent
std::string RunOnTerminal(const std::vector<std::string>& arguments);

/// @return the lines of a text, without their ends
std::vector<std::string> LinesOf(const std::string& text);

#endif  // TALLYRA_TESTS_TOOL_PROGRAM_H
