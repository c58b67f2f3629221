// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_TOOL_STOREFIXTURE_H
#define TALLYRA_TESTS_TOOL_STOREFIXTURE_H

#include "Program.h"
#include "TYStore.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

constexpr std::int64_t kSecond = 1'000'000'000;
/// 2026-11-21T04:09:50Z, when the scripted playback starts.
constexpr std::int32_t kStartSecond = 1795234190;

/// One record of a script: milliseconds since its start, event, parameters.
struct Step {
    int offsetMs;
    int event;
    int param1 = 0;
    int param2 = 0;
};

/// What all records of a script have in common.
struct Script {
    std::string application = "org.example.player";
    std::string playback = "263871795234190306049338";
    std::string title = "The Long Way Home";
    std::string url = "https://cdn.example/long-way-home.mp4";
    std::string sender = ":1.7";
};

/// A start after 1480 ms, two stalls of 2500 and 1250 ms, 180 + 30 + 30 seconds watched, one jump,
/// a stop: as the library reports it, derived records included.
std::vector<Step> WholePlayback();

/// A test on a store of its own, with the command to read it.
class CStoreTest : public testing::Test {
  protected:
    /// Stores the steps of a script as one batch.
    /// @param arrival  nanoseconds since the epoch
    void Store(const Script& script, const std::vector<Step>& steps, std::int64_t arrival);
    void StoreBatch(const std::vector<TYMediaData>& records, const std::vector<std::string>& urls,
                    std::int64_t arrival, const std::string& sender = ":1.7");
    /// Changes the store in a way that the service never would.
    void Damage(const char* pSql);

    static TYMediaData RecordOf(const Script& script, const Step& step);

    std::string Db() const { return m_Folder.Path() / "tallyra.db"; }
    std::string File(const std::string& name) const { return m_Folder.Path() / name; }
    /// @return the arguments of a command on the store
    std::vector<std::string> Command(std::vector<std::string> arguments) const;
    Result Run(const std::vector<std::string>& arguments, const std::string& input = "") const;
    /// Runs a command with --format json.
    nlohmann::json RunForJson(std::vector<std::string> arguments) const;

    CTemporaryFolder m_Folder;
};

/// @return the values of one member in each of the objects
template <class Value>
std::vector<Value> Each(const nlohmann::json& rows, const std::string& member) {
    std::vector<Value> values;
    for (const auto& row : rows) {
        values.push_back(row.at(member).get<Value>());
    }
    return values;
}

/// Reads CSV as RFC 4180 has it.
/// @throws std::runtime_error  when a quoted field does not end
std::vector<std::vector<std::string>> ParseCsv(const std::string& text);

std::int64_t NowNs();

#endif  // TALLYRA_TESTS_TOOL_STOREFIXTURE_H
