// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TimeText.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>

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
        default:
            return 0;
    }
}

std::optional<std::int64_t> ParseAge(const std::string& text, std::int64_t now) {
    const std::int64_t unit = text.empty() ? 0 : SecondsIn(text.back());
    const auto count = ParseNumber(text.substr(0, text.empty() ? 0 : text.size() - 1));
    if (unit == 0 || !count || *count > kLargestSecond / unit) {
        return std::nullopt;
    }
    return now - *count * unit * kSecond;
}

std::optional<std::int64_t> ParseDate(std::string text) {
    const bool utc = !text.empty() && text.back() == 'Z';
    if (utc) {
        text.pop_back();
    }
    for (const char* pFormat : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d"}) {
        std::tm parts{};
        parts.tm_isdst = -1;
        const char* pEnd = strptime(text.c_str(), pFormat, &parts);
        if (pEnd != nullptr && *pEnd == '\0') {
            const std::time_t seconds = utc ? timegm(&parts) : std::mktime(&parts);
            return std::int64_t{seconds} * kSecond;
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::int64_t> ParseTime(const std::string& text, std::int64_t now) {
    if (!text.empty() && text[0] == '@') {
        return ParseEpoch(text.substr(1));
    }
    if (const auto time = ParseAge(text, now)) {
        return time;
    }
    return ParseDate(text);
}

std::string FormatTime(std::int64_t nanoseconds) {
    std::int64_t fraction = nanoseconds % kSecond;
    fraction += fraction < 0 ? kSecond : 0;
    const std::time_t seconds = (nanoseconds - fraction) / kSecond;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    std::array<char, 64> text;
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text.data() + length, text.size() - length, ".%03dZ",
                  static_cast<int>(fraction / 1'000'000));
    return text.data();
}

std::string FormatLength(std::int64_t milliseconds) {
    const std::string sign = milliseconds < 0 ? "-" : "";
    const long long left = milliseconds < 0 ? -milliseconds : milliseconds;
    std::array<char, 64> text;
    if (left >= 3'600'000) {
        std::snprintf(text.data(), text.size(), "%lld:%02lld:%02lld", left / 3'600'000,
                      left / 60'000 % 60, left / 1000 % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%lld:%02lld.%03lld", left / 60'000,
                      left / 1000 % 60, left % 1000);
    }
    return sign + text.data();
}
