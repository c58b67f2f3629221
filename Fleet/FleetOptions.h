// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_FLEETOPTIONS_H
#define TALLYRA_FLEETOPTIONS_H

#include "TYNatsLink.h"

#include <chrono>
#include <string>

#include <cstdint>
#include <optional>

namespace CLI {
class App;
class Validator;
}  // namespace CLI

/// Adds the options that say how to reach the servers. Each can also be given by the environment,
/// for systemd units: TALLYRA_SERVER, TALLYRA_CREDENTIALS, TALLYRA_CA, TALLYRA_CERTIFICATE and
/// TALLYRA_KEY.
void AddNatsOptions(CLI::App& app, TYNatsOptions& options);

/// @return whether the text is not empty; CLI11 itself takes an empty value
CLI::Validator NotEmpty();

/// @return whether the number is at least this one; the texts of CLI11 name the largest double
CLI::Validator From(std::int64_t least);

/// Parses the arguments. After --help, --version or wrong ones, their output is written.
/// @return the exit status for main; nothing if the program goes on
std::optional<int> ParseArguments(CLI::App& app, int argc, char** argv);

/// @param path  a file with credentials
/// @return the name that they were made for
/// @throws std::runtime_error  if the file cannot be read, or contains no credentials
std::string NameInCredentials(const std::string& path);

/// Logs the first of equal lines.
///
/// Threads: one.
class CTYLogOnce {
  public:
    void Log(const std::string& line);
    /// The next line is logged, whatever it is.
    void Reset() { m_strLast.clear(); }

  private:
    std::string m_strLast;
};

/// Waits for so long, or until it is asked to stop.
void Pause(std::chrono::milliseconds time);

/// Makes SIGTERM and SIGINT end the program's loop instead of the program. Call it before the first
/// thread starts.
void CatchStopSignals();
/// Threads: any.
bool IsStopRequested();

#endif  // TALLYRA_FLEETOPTIONS_H
