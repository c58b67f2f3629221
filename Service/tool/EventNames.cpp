// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "EventNames.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>

namespace {

struct Name {
    int code;
    const char* pName;
};

constexpr std::array kNames = {
    Name{1, "START"},
    Name{2, "STOP"},
    Name{3, "PAUSE"},
    Name{4, "BUFFERING_START"},
    Name{5, "BUFFERING_END"},
    Name{6, "RENDER_START"},
    Name{7, "RESUME"},
    Name{8, "PLAYBACK_TIME"},
    Name{9, "SEEK"},
    Name{10, "SEEK_COMPLETE"},
    Name{20, "PLAYING_TIME"},
    Name{21, "START_UP_TIME"},
    Name{22, "BUFFERING_TIME"},
    Name{201, "URL_CHANGED"},
    Name{202, "BUFFERING_MISMATCH"},
    Name{203, "DUPLICATED_START"},
    Name{204, "PLAYBACK_TIME_JUMP"},
    Name{205, "DUPLICATED_RENDER_START"},
};

constexpr int kLastCode = 255;

std::string ToUpper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

}  // namespace

std::string EventName(int code) {
    for (const Name& name : kNames) {
        if (name.code == code) {
            return name.pName;
        }
    }
    return std::to_string(code);
}

std::optional<int> EventCode(const std::string& nameOrNumber) {
    int code = 0;
    const char* pEnd = nameOrNumber.data() + nameOrNumber.size();
    const auto [pStopped, error] = std::from_chars(nameOrNumber.data(), pEnd, code);
    if (error == std::errc() && pStopped == pEnd) {
        return code >= 0 && code <= kLastCode ? std::optional(code) : std::nullopt;
    }
    const std::string wanted = ToUpper(nameOrNumber);
    for (const Name& name : kNames) {
        if (wanted == name.pName) {
            return name.code;
        }
    }
    return std::nullopt;
}

std::string NetworkName(int type) {
    constexpr std::array kTypes = {"none", "ethernet", "wifi"};
    return type >= 0 && type < static_cast<int>(kTypes.size())
               ? kTypes[static_cast<std::size_t>(type)]
               : "unknown";
}
