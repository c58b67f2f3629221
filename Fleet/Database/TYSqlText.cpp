// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSqlText.h"

#include <charconv>
#include <stdexcept>
#include <system_error>

std::string QuotedElement(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + '"';
}

std::vector<std::int64_t> NumbersOf(std::string_view text) {
    std::vector<std::int64_t> numbers;
    while (text.size() > 2) {
        text.remove_prefix(1);
        std::int64_t& number = numbers.emplace_back();
        const auto [pEnd, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc()) {
            throw std::runtime_error("an array of the database has no number");
        }
        text.remove_prefix(static_cast<std::size_t>(pEnd - text.data()));
    }
    return numbers;
}

std::string ByteaText(std::string_view bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text = "\\x";
    text.reserve(2 + 2 * bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 0xfU];
    }
    return text;
}
