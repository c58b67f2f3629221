// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "SessionFile.h"

#include <glib.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

namespace {

using nlohmann::json;

/// Reads the members of one line.
class CLine {
  public:
    CLine(const std::string& text, std::string place) : m_Place(std::move(place)) {
        m_Object = json::parse(text, nullptr, false);
        if (!m_Object.is_object()) {
            Fail("not a JSON object");
        }
    }

    [[noreturn]] void Fail(const std::string& what) const {
        throw SessionFileError(m_Place + ": " + what);
    }

    bool Has(const char* pName) const { return m_Object.contains(pName); }

    std::string Text(const char* pName) const {
        const json& value = Member(pName);
        if (!value.is_string()) {
            Fail(std::string("\"") + pName + "\" is not a text");
        }
        return value.get<std::string>();
    }
    std::optional<std::string> TextOrNull(const char* pName) const {
        return Member(pName).is_null() ? std::nullopt : std::optional(Text(pName));
    }
    template <class Number>
    Number Integer(const char* pName) const {
        const json& value = Member(pName);
        const auto number = value.is_number_integer() ? value.get<std::int64_t>() : 0;
        if (!value.is_number_integer() || number < std::numeric_limits<Number>::min() ||
            number > std::numeric_limits<Number>::max()) {
            Fail(std::string("\"") + pName + "\" is not an integer of its range");
        }
        return static_cast<Number>(number);
    }

    /// @return milliseconds since the epoch
    std::int64_t Time(const char* pName) const {
        const std::string text = Text(pName);
        const std::unique_ptr<GDateTime, decltype(&g_date_time_unref)> time(
            g_date_time_new_from_iso8601(text.c_str(), nullptr), &g_date_time_unref);
        if (time == nullptr) {
            Fail("\"" + text + "\" is not a time");
        }
        constexpr int kPerSecond = 1000;
        return g_date_time_to_unix(time.get()) * kPerSecond +
               g_date_time_get_microsecond(time.get()) / kPerSecond;
    }

  private:
    const json& Member(const char* pName) const {
        const auto found = m_Object.find(pName);
        if (found == m_Object.end()) {
            Fail(std::string("\"") + pName +
                 "\" is missing; a record comes from 'tallyra export "
                 "--format jsonl' or from tallyra-testservice");
        }
        return *found;
    }

    const std::string m_Place;
    json m_Object;
};

SessionRecord ReadRecord(const CLine& line, std::size_t number) {
    SessionRecord record;
    record.line = number;
    record.timeline = {static_cast<std::int64_t>(number), line.Time("time"),
                       line.Integer<std::uint8_t>("code"), line.Integer<std::int32_t>("param1"),
                       line.Integer<std::int32_t>("param2")};
    record.playback = line.Text("playback");
    record.application = line.Text("application");
    record.name = line.Text("event");
    record.url = line.TextOrNull("url");
    record.duration = line.Integer<std::int64_t>("duration_ms");
    record.contentType = line.Integer<int>("content_type");
    return record;
}

void Add(std::vector<Playback>& playbacks, SessionRecord record) {
    auto found = std::ranges::find(playbacks, record.playback, &Playback::name);
    if (found == playbacks.end()) {
        playbacks.push_back({record.playback, {}});
        found = playbacks.end() - 1;
    }
    found->records.push_back(std::move(record));
}

}  // namespace

std::vector<Playback> ReadSessions(std::istream& source, const std::string& name) {
    std::vector<Playback> playbacks;
    std::size_t number = 0;
    std::size_t records = 0;
    for (std::string text; std::getline(source, text);) {
        const CLine line(text, name + ":" + std::to_string(++number));
        if (!line.Has("end")) {
            Add(playbacks, ReadRecord(line, number));
            ++records;
        } else if (line.Integer<std::int64_t>("rows") != static_cast<std::int64_t>(records)) {
            line.Fail("the file ends with another number of records than it has");
        }
    }
    if (playbacks.empty()) {
        throw SessionFileError(name +
                               ": no record: did the player report anything, and was "
                               "collection on?");
    }
    return playbacks;
}
