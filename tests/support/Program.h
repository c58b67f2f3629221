// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_PROGRAM_H
#define TALLYRA_TESTS_SUPPORT_PROGRAM_H

#include "ChildProcess.h"
#include "Eventually.h"
#include "TemporaryFolder.h"
#include "Test.h"

/// What a program left when it ended.
struct Result {
    int code = -1;  ///< -1: it had to be killed
    std::string out;
    std::string err;
};

/// A running program with files as its standard streams.
///
/// Threads: as CChildProcess.
class CProgram {
  public:
    /// @param output  receives standard output in place of the file that Out and Finish read
    explicit CProgram(const std::vector<std::string>& arguments, const std::string& input = "",
                      const std::filesystem::path& output = {})
        : m_Child(arguments, Options(input, output)) {}

    /// @return its standard output so far
    std::string Out() const { return m_Folder.Read("out"); }
    /// @return its standard error so far
    std::string Errors() const { return m_Folder.Read("err"); }
    /// @return whether it prints the text, within the patience
    bool Prints(const std::string& text) const {
        return Eventually([&] { return Out().find(text) != std::string::npos; });
    }
    pid_t Pid() const { return m_Child.Pid(); }
    void Signal(int signal) const { m_Child.Signal(signal); }
    /// Waits for its end; kills it when the patience is over.
    Result Finish() {
        const auto code = m_Child.WaitForExit(kPatience);
        m_Child.Kill();
        return {code.value_or(-1), Out(), m_Folder.Read("err")};
    }

  private:
    ChildOptions Options(const std::string& input, const std::filesystem::path& output) const {
        m_Folder.Write("in", input);
        return {.input = m_Folder.Path() / "in",
                .output = output.empty() ? m_Folder.Path() / "out" : output,
                .error = m_Folder.Path() / "err"};
    }

    CTemporaryFolder m_Folder;
    CChildProcess m_Child;
};

/// Runs a program to its end.
inline Result RunProgram(const std::vector<std::string>& arguments, const std::string& input = "",
                         const std::filesystem::path& output = {}) {
    return CProgram(arguments, input, output).Finish();
}

/// @return the lines of a text, without their ends
inline std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

#endif  // TALLYRA_TESTS_SUPPORT_PROGRAM_H
