// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSQLTEXT_H
#define TALLYRA_TYSQLTEXT_H

#include <concepts>
#include <cstdint>
#include <ranges>
#include <string>
#include <string_view>
#include <vector>

// Values as PostgreSQL reads and prints them.

/// @return a text as an element of an array
std::string QuotedElement(std::string_view text);

/// @return an array
template <std::ranges::range Values>
std::string ArrayText(const Values& values) {
    std::string text = "{";
    for (const auto& value : values) {
        text += text.size() > 1 ? "," : "";
        if constexpr (std::integral<std::ranges::range_value_t<Values>>) {
            text += std::to_string(value);
        } else {
            text += QuotedElement(value);
        }
    }
    return text + "}";
}

/// @param text  an array of numbers without nulls
/// @throws std::runtime_error  for any other text
std::vector<std::int64_t> NumbersOf(std::string_view text);

/// @return bytes as bytea
std::string ByteaText(std::string_view bytes);

#endif  // TALLYRA_TYSQLTEXT_H
