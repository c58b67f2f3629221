// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_OPTIONS_H
#define TALLYRA_TOOL_OPTIONS_H

#include "Commands.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

/// The largest numeric id that a user can have.
inline constexpr std::int64_t kLargestUid = 4'294'967'294;

/// The program's arguments: its commands, their options, and what each command runs.
///
/// Threads: one.
class CCommandLine {
  public:
    using Function = std::function<int(const Context&)>;

    /// @param context  receives the values of the options that all commands share
    explicit CCommandLine(Context& context);

    /// Adds a command, with the option --db.
    /// @param run  called by Run if this command was given
    CLI::App& Add(const char* pName, const char* pText, Function run);
    /// Adds a command below another one.
    CLI::App& AddBelow(CLI::App& parent, const char* pName, const char* pText, Function run);

    CLI::App& App() { return m_App; }
    /// @return the values that all commands share; options may refer to them
    Context& Values() { return m_Context; }

    /// Runs the command that was parsed.
    /// @return the exit code of the program
    int Run() const;

  private:
    Context& m_Context;
    CLI::App m_App;
    std::vector<std::pair<const CLI::App*, Function>> m_Commands;
};

/// Adds the option --format.
void AddFormat(CLI::App& app, Context& context);
/// Adds an option that takes a time.
void AddTime(CLI::App& app, const char* pName, std::optional<std::int64_t>& time, std::int64_t now,
             const char* pText);
/// Adds the option --limit.
void AddLimit(CLI::App& app, Filter& filter);

// The commands, in the order of the help. A command is one more such function, called in main.
void AddReaders(CCommandLine& line);
void AddPolicy(CCommandLine& line);
void AddForget(CCommandLine& line);
void AddExport(CCommandLine& line);
void AddKpi(CCommandLine& line);

#endif  // TALLYRA_TOOL_OPTIONS_H
