// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PROGRAMS_COMMANDFIXTURE_H
#define TALLYRA_TESTS_PROGRAMS_COMMANDFIXTURE_H

#include "Program.h"
#include "StoreFixture.h"
#include "TYWallClock.h"

#include <nlohmann/json.hpp>

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
inline std::vector<Step> WholePlayback() {
    return {{0, TY_EVENT_START},
            {1480, TY_EVENT_RENDER_START},
            {1480, TY_EVENT_START_UP_TIME, 1480},
            {1600, TY_EVENT_PLAYBACK_TIME, 0},
            {61600, TY_EVENT_BUFFERING_START, 60000, -61},
            {64100, TY_EVENT_BUFFERING_END},
            {64100, TY_EVENT_BUFFERING_TIME, 2500},
            {184100, TY_EVENT_PLAYING_TIME, 180000, 180000},
            {185000, TY_ERROR_PLAYBACK_TIME_JUMP, 500000, 180000},
            {215000, TY_EVENT_PAUSE, 530000},
            {215000, TY_EVENT_PLAYING_TIME, 530000, 30000},
            {300000, TY_EVENT_RESUME},
            {300100, TY_EVENT_PLAYBACK_TIME, 530000},
            {305000, TY_EVENT_BUFFERING_START, 535000, -64},
            {306250, TY_EVENT_BUFFERING_END},
            {306250, TY_EVENT_BUFFERING_TIME, 1250},
            {311000, TY_EVENT_SEEK, 540000, 900000},
            {331000, TY_EVENT_STOP, 560000},
            {331000, TY_EVENT_PLAYING_TIME, 560000, 30000}};
}

/// A test on a store of its own, with the command that reads it.
class CCommandTest : public CStoreTest {
  protected:
    /// Stores the steps of a script as one batch.
    /// @param arrival  nanoseconds since the epoch
    void Store(const Script& script, const std::vector<Step>& steps,
               std::int64_t arrival = WallClockNow()) {
        std::vector<TYMediaData> records;
        for (const Step& step : steps) {
            records.push_back(RecordOf(script, step));
        }
        const std::vector<std::string> urls(records.size(), script.url);
        StoreBatch(records, urls, arrival, script.sender);
    }
    void StoreBatch(const std::vector<TYMediaData>& records, const std::vector<std::string>& urls,
                    std::int64_t arrival = WallClockNow(), const std::string& sender = ":1.7") {
        TYBatch batch = MakeBatch(records, arrival);
        batch.sender.name = sender;
        batch.urls.assign(urls.begin(), urls.end());
        CTYStore(Db()).Add(batch);
    }

    static TYMediaData RecordOf(const Script& script, const Step& step) {
        TYMediaData record = MakeRecord(step.event, script.playback, step.param1, step.param2);
        record.playerID = TY_PLAYER_NATIVE;
        record.networkType = TY_NETWORK_WIFI;
        CopyText(record.serviceVersion, "2.4.1");
        CopyText(record.serviceID, script.application.c_str());
        record.content.duration = 6912000;
        CopyText(record.content.title, script.title.c_str());
        record.time = {kStartSecond + step.offsetMs / 1000, step.offsetMs % 1000 * 1'000'000};
        return record;
    }

    std::string Db() const { return m_File; }
    std::string File(const std::string& name) const { return m_Folder.Path() / name; }
    /// @return the arguments that run a command on the store
    std::vector<std::string> Command(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), TALLYRA_COMMAND);
        arguments.insert(arguments.end(), {"--db", Db()});
        return arguments;
    }
    Result Run(const std::vector<std::string>& arguments) const {
        return RunProgram(Command(arguments));
    }
    /// Runs a command with --format json.
    nlohmann::json RunForJson(std::vector<std::string> arguments) const {
        arguments.insert(arguments.end(), {"--format", "json"});
        const Result result = Run(arguments);
        EXPECT_EQ(result.code, 0) << result.err;
        return nlohmann::json::parse(result.out);
    }
    /// Runs a program with a terminal as its standard output.
    /// @return everything sent to the terminal, and then to standard error
    static std::string RunOnTerminal(const std::vector<std::string>& arguments) {
        const int reader = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (reader == -1) {
            throw std::runtime_error("this machine has no pseudo terminal");
        }
        grantpt(reader);
        unlockpt(reader);
        const int writer = open(ptsname(reader), O_RDWR | O_NOCTTY | O_CLOEXEC);
        // The last read fails once the other end of the terminal is closed.
        auto text = std::async(std::launch::async, [reader] {
            std::string received;
            std::array<char, 4096> part;
            for (ssize_t n = 0; (n = read(reader, part.data(), part.size())) > 0;) {
                received.append(part.data(), static_cast<std::size_t>(n));
            }
            return received;
        });
        const std::string errors = RunProgram(arguments, "", ptsname(reader)).err;
        close(writer);
        text.wait();
        close(reader);
        return text.get() + errors;
    }
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
inline std::vector<std::vector<std::string>> ParseCsv(const std::string& text) {
    std::vector<std::vector<std::string>> rows(1, {""});
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string& field = rows.back().back();
        if (quoted && text[i] == '"' && text.compare(i, 2, "\"\"") == 0) {
            field += text[i++];
        } else if (text[i] == '"') {
            quoted = !quoted;
        } else if (!quoted && text[i] == ',') {
            rows.back().emplace_back();
        } else if (!quoted && text.compare(i, 2, "\r\n") == 0) {
            rows.push_back({""});
            ++i;
        } else {
            field += text[i];
        }
    }
    if (quoted || rows.back() != std::vector<std::string>{""}) {
        throw std::runtime_error("the CSV is cut off");
    }
    rows.pop_back();
    return rows;
}

/// @return the cell below a heading in a row of parsed CSV
inline std::string CsvCell(const std::vector<std::vector<std::string>>& rows,
                           const std::string& heading, std::size_t row = 1) {
    const auto at = std::find(rows.at(0).begin(), rows.at(0).end(), heading) - rows[0].begin();
    return rows.at(row).at(static_cast<std::size_t>(at));
}

#endif  // TALLYRA_TESTS_PROGRAMS_COMMANDFIXTURE_H
