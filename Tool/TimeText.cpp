// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TimeText.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <regex>

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kLargestSecond = INT64_MAX / kSecond;

std::optional<std::int64_t> ParseNumber(const std::string& text) {
    std::int64_t number = 0;
    const char* pEnd = text.data() + text.size();
    const auto [pStopped, error] = std::from_chars(text.data(), pEnd, number);
    if (error != std::errc() || pStopped != pEnd || number < 0 || number > kLargestSecond) {
        return std::nullopt;
    }
    return number;
}

std::optional<std::int64_t> ParseEpoch(const std::string& text) {
    const auto seconds = ParseNumber(text);
    if (!seconds) {
        return std::nullopt;
    }
    return *seconds * kSecond;
}

std::int64_t SecondsIn(char unit) {
    switch (unit) {
        case 's':
            return 1;
        case 'm':
            return 60;
        case 'h':
            return 3600;
        case 'd':
            return 86400;
        case 'w':
            return 604'800;
        default:
            return 0;
    }
}

std::optional<std::int64_t> ParseAge(std::string text, std::int64_t now) {
    if (text.starts_with('-')) {
        text.erase(0, 1);
    }
    const std::int64_t unit = text.empty() ? 0 : SecondsIn(text.back());
    const auto count = ParseNumber(text.substr(0, text.empty() ? 0 : text.size() - 1));
    if (unit == 0 || !count || *count > kLargestSecond / unit) {
        return std::nullopt;
    }
    return now - *count * unit * kSecond;
}

/// A time of a calendar, without its zone.
struct CivilTime {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    bool operator==(const CivilTime&) const = default;
};

std::tm ToTm(const CivilTime& time) {
    std::tm parts{};
    parts.tm_year = time.year - 1900;
    parts.tm_mon = time.month - 1;
    parts.tm_mday = time.day;
    parts.tm_hour = time.hour;
    parts.tm_min = time.minute;
    parts.tm_sec = time.second;
    parts.tm_isdst = -1;
    return parts;
}

CivilTime FromTm(const std::tm& parts) {
    return {parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
            parts.tm_hour,        parts.tm_min,     parts.tm_sec};
}

std::tm BreakDown(std::time_t seconds, Zone zone) {
    std::tm parts{};
    zone == Zone::UTC ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts);
    return parts;
}

// Both functions normalise what does not exist, such as February 30th or a skipped hour. Of a local
// time that occurs twice, the first is in summer time.
std::optional<std::time_t> SecondsOf(const CivilTime& time, Zone zone) {
    for (const int isSummer : {1, -1}) {
        std::tm parts = ToTm(time);
        parts.tm_isdst = isSummer;
        const std::time_t seconds = zone == Zone::UTC ? timegm(&parts) : std::mktime(&parts);
        if (FromTm(BreakDown(seconds, zone)) == time) {
            return seconds;
        }
    }
    return std::nullopt;
}

// A change to summer time at midnight skips the first hour, or half an hour, of its date.
std::optional<std::time_t> BeginOfDay(const CivilTime& date, Zone zone) {
    for (const int minutes : {0, 30, 60}) {
        CivilTime time = date;
        time.hour = minutes / 60;
        time.minute = minutes % 60;
        if (const auto seconds = SecondsOf(time, zone)) {
            return seconds;
        }
    }
    return std::nullopt;
}

std::optional<std::int64_t> ToNanoseconds(std::optional<std::int64_t> seconds) {
    if (!seconds || std::abs(*seconds) >= kLargestSecond) {
        return std::nullopt;
    }
    return *seconds * kSecond;
}

int NumberIn(const std::ssub_match& digits) {
    return digits.matched ? std::stoi(digits) : 0;
}

// @return the offset in seconds; nothing if the text has none that exists
std::optional<int> ParseOffset(const std::string& text) {
    if (text == "Z" || text == "UTC") {
        return 0;
    }
    const int hours = std::stoi(text.substr(1, 2));
    const int minutes = text.size() > 3 ? std::stoi(text.substr(text.size() - 2)) : 0;
    if (hours > 14 || minutes > 59) {
        return std::nullopt;
    }
    return (text[0] == '-' ? -60 : 60) * (hours * 60 + minutes);
}

std::optional<std::int64_t> ParseSeconds(const CivilTime& time, const std::string& offset,
                                         Zone zone) {
    if (offset.empty()) {
        return SecondsOf(time, zone);
    }
    const auto seconds = SecondsOf(time, Zone::UTC);
    const auto eastward = ParseOffset(offset);
    if (!seconds || !eastward) {
        return std::nullopt;
    }
    return *seconds - *eastward;
}

bool MatchDate(const std::string& text, std::smatch& part) {
    static const std::regex kDate(
        R"((\d{4})-(\d\d)-(\d\d)(?:([T ])(\d\d):(\d\d)(?::(\d\d)(?:\.(\d{1,9}))?)?)"
        R"( ?(Z|UTC|[+-]\d\d(?::?\d\d)?)?)?)");
    constexpr std::size_t kLongest = 64;
    return text.size() <= kLongest && std::regex_match(text, part, kDate);
}

std::optional<std::int64_t> ParseDate(const std::string& text, Zone zone) {
    std::smatch part;
    if (!MatchDate(text, part)) {
        return std::nullopt;
    }
    const CivilTime time{NumberIn(part[1]), NumberIn(part[2]), NumberIn(part[3]),
                         NumberIn(part[5]), NumberIn(part[6]), NumberIn(part[7])};
    if (!part[4].matched) {
        return ToNanoseconds(BeginOfDay(time, zone));
    }
    const auto whole = ToNanoseconds(ParseSeconds(time, part[9], zone));
    if (!whole) {
        return std::nullopt;
    }
    std::string fraction = part[8];
    fraction.resize(9, '0');
    return *whole + std::stoi(fraction);
}

// @param days  how many days before today
std::optional<std::int64_t> DayBefore(std::int64_t now, int days, Zone zone) {
    CivilTime date = FromTm(BreakDown(now / kSecond, zone));
    date = {date.year, date.month, date.day, 0, 0, 0};
    // In UTC, every day has 24 hours.
    const auto midnight = SecondsOf(date, Zone::UTC);
    date = FromTm(BreakDown(*midnight - days * std::time_t{86400}, Zone::UTC));
    return ToNanoseconds(BeginOfDay(date, zone));
}

}  // namespace

std::optional<std::int64_t> ParseTime(const std::string& text, std::int64_t now, Zone zone) {
    if (text == "now") {
        return now;
    }
    if (text == "today" || text == "yesterday") {
        return DayBefore(now, text == "today" ? 0 : 1, zone);
    }
    if (text.starts_with('@')) {
        return ParseEpoch(text.substr(1));
    }
    if (const auto time = ParseAge(text, now)) {
        return time;
    }
    return ParseDate(text, zone);
}

bool HasFormOfDate(const std::string& text) {
    std::smatch part;
    return MatchDate(text, part);
}

std::string FormatTime(std::int64_t nanoseconds, Zone zone) {
    std::int64_t fraction = nanoseconds % kSecond;
    fraction += fraction < 0 ? kSecond : 0;
    const std::tm parts = BreakDown((nanoseconds - fraction) / kSecond, zone);
    std::array<char, 64> text;
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    const int written = std::snprintf(text.data() + length, text.size() - length, ".%03d",
                                      static_cast<int>(fraction / 1'000'000));
    const std::string time(text.data(), length + static_cast<std::size_t>(written));
    if (zone == Zone::UTC) {
        return time + "Z";
    }
    std::strftime(text.data(), text.size(), "%z", &parts);
    const std::string offset = text.data();
    return time + offset.substr(0, 3) + ":" + offset.substr(3);
}

std::string FormatLength(std::int64_t milliseconds) {
    const std::string sign = milliseconds < 0 ? "-" : "";
    // Unsigned, because the least number has no positive counterpart.
    const auto whole = static_cast<unsigned long long>(milliseconds);
    const unsigned long long left = milliseconds < 0 ? 0 - whole : whole;
    std::array<char, 64> text;
    if (left >= 3'600'000) {
        std::snprintf(text.data(), text.size(), "%llu:%02llu:%02llu", left / 3'600'000,
                      left / 60'000 % 60, left / 1000 % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%llu:%02llu.%03llu", left / 60'000,
                      left / 1000 % 60, left % 1000);
    }
    return sign + text.data();
}
