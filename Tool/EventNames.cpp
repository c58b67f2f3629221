// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "EventNames.h"

#include "TYEventCodes.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace {

std::string ToUpper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

}  // namespace

std::string EventName(int code) {
    const auto name = NameOfCode(code);
    return name ? std::string(*name) : std::to_string(code);
}

std::optional<int> EventCode(const std::string& nameOrNumber) {
    int code = 0;
    const char* pEnd = nameOrNumber.data() + nameOrNumber.size();
    const auto [pStopped, error] = std::from_chars(nameOrNumber.data(), pEnd, code);
    if (error != std::errc() || pStopped != pEnd) {
        return CodeOfName(ToUpper(nameOrNumber));
    }
    if (code < 0 || code > kLastCode) {
        return std::nullopt;
    }
    return code;
}
