// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_OPTIONS_H
#define TALLYRA_TOOL_OPTIONS_H

#include "Commands.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
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

/// Adds --format and what belongs to it: --safe-csv, --utc and --local.
/// @param unlessTold  the format without the option
void AddFormat(CLI::App& app, Context& context, Format unlessTold = Format::TABLE);
/// Tells in --help that the command's --db also takes the database of a fleet.
void DescribeFleet(CLI::App& app);
/// Adds an option that takes a time, and --utc and --local.
void AddTime(CLI::App& app, Context& context, const char* pName, std::optional<std::int64_t>& time,
             const char* pText);
/// Adds the options --since and --until. A range that ends before it begins is a usage error.
void AddTimes(CLI::App& app, Context& context, std::optional<std::int64_t>& since,
              std::optional<std::int64_t>& until, const char* pSince, const char* pUntil);
/// Adds the option --uid.
void AddUid(CLI::App& app, std::optional<std::int64_t>& uid, const char* pText);
/// Adds --sort and --reverse.
void AddOrder(CLI::App& app, Order& order, const std::vector<std::string>& columns);
/// Adds an option that may be repeated and takes lists with commas.
/// @param take  called with all words; throws CLI::ValidationError for a wrong one
CLI::Option& AddWords(CLI::App& app, const char* pName,
                      const std::function<void(const std::vector<std::string>&)>& take,
                      const std::string& text);

/// Lets an option take only whole decimal numbers from `least` to `most`.
CLI::Option& TakeNumbers(CLI::Option& option, std::int64_t least, std::int64_t most);
/// Makes an empty value an error.
CLI::Option& RefuseEmpty(CLI::Option& option);

/// Lets an option take the names of a map only, in any case. CLI::CheckedTransformer would take the
/// numbers of the values as well.
template <class Value>
CLI::Option& TakeNames(CLI::Option& option, const std::map<std::string, Value>& values) {
    // The one that is added last runs first.
    return *option.transform(CLI::Transformer(values).description(""))
                ->transform(CLI::IsMember(values, CLI::ignore_case).description(""));
}

// The commands, in the order of the help. A command is one more such function, called in main.
void AddReaders(CCommandLine& line);
void AddPolicy(CCommandLine& line);
void AddForget(CCommandLine& line);
void AddExport(CCommandLine& line);
void AddKpi(CCommandLine& line);
void AddReport(CCommandLine& line);

#endif  // TALLYRA_TOOL_OPTIONS_H
