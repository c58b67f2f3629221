// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PROGRAMS_COMMANDFIXTURE_H
#define TALLYRA_TESTS_PROGRAMS_COMMANDFIXTURE_H

#include "Program.h"
#include "StoreFixture.h"
#include "TYWallClock.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

constexpr std::int64_t kSecond = 1'000'000'000;
/// 2026-11-21T04:09:50Z, the start of every script.
constexpr std::int32_t kStartSecond = 1795234190;
/// An error code that the library does not use.
constexpr int kPlayerError = 240;

/// One record of a script.
struct Step {
    int offsetMs;  ///< since the start of the script
    int event;
    int param1 = 0;
    int param2 = 0;
};

/// What all records of a script share.
struct Script {
    std::string application = "org.example.player";
    std::string playback = "263871795234190306049338";
    std::string title = "The Long Way Home";
    std::string url = "https://cdn.example/long-way-home.mp4";
    std::string sender = ":1.7";
};

/// @return a playback as the library reports it: start-up of 1480 ms, two stalls of 2500 and 1250
///         ms, 180 + 30 + 30 seconds watched, one position jump, a stop
std::vector<Step> WholePlayback();

/// A test on a store of its own, with the command that reads it.
class CCommandTest : public CStoreTest {
  protected:
    /// Stores the steps of a script as one batch.
    /// @param arrival  nanoseconds since the epoch
    void Store(const Script& script, const std::vector<Step>& steps,
               std::int64_t arrival = WallClockNow());
    void StoreBatch(const std::vector<TYMediaData>& records, const std::vector<std::string>& urls,
                    std::int64_t arrival = WallClockNow(), const std::string& sender = ":1.7");

    static TYMediaData RecordOf(const Script& script, const Step& step);

    std::string Db() const { return m_File; }
    std::string File(const std::string& name) const { return m_Folder.Path() / name; }
    /// @return the arguments that run a command on the store
    std::vector<std::string> Command(std::vector<std::string> arguments) const;
    Result Run(const std::vector<std::string>& arguments) const {
        return RunProgram(Command(arguments));
    }
    /// Runs a command with --format json.
    nlohmann::json RunForJson(std::vector<std::string> arguments) const;
    /// Runs a program with a terminal as its output.
    /// @return everything sent to the terminal
    static std::string RunOnTerminal(std::vector<std::string> arguments);
};

/// @return the values of one member of each object
template <class Value>
std::vector<Value> Each(const nlohmann::json& rows, const std::string& member) {
    std::vector<Value> values;
    for (const auto& row : rows) {
        values.push_back(row.at(member).get<Value>());
    }
    return values;
}

/// Parses CSV as RFC 4180 defines it.
/// @throws std::runtime_error  if the last row is incomplete
std::vector<std::vector<std::string>> ParseCsv(const std::string& text);

#endif  // TALLYRA_TESTS_PROGRAMS_COMMANDFIXTURE_H
