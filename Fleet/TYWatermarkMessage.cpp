// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYWatermarkMessage.h"

#include <algorithm>
#include <charconv>

namespace {

std::string_view TakeWord(std::string_view& text) {
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    return word;
}

std::optional<std::int64_t> TakeNumber(std::string_view& text) {
    const std::string_view word = TakeWord(text);
    std::int64_t number = 0;
    const auto [pEnd, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    const bool isNumber = error == std::errc() && pEnd == word.data() + word.size() && number >= 0;
    return isNumber ? std::optional(number) : std::nullopt;
}

}  // namespace

std::string TYWatermarkMessage::Text() const {
    const std::string text = epoch + ' ' + std::to_string(stored);
    return stream ? text + ' ' + std::to_string(stream->processedUpTo) + ' ' + stream->id : text;
}

std::optional<TYWatermarkMessage> TYWatermarkMessage::Parse(std::string_view text) {
    TYWatermarkMessage message;
    message.epoch = TakeWord(text);
    const std::optional<std::int64_t> stored = TakeNumber(text);
    if (!stored) {
        return std::nullopt;
    }
    message.stored = *stored;
    if (text.empty()) {
        return message;
    }
    const std::optional<std::int64_t> processed = TakeNumber(text);
    if (!processed) {
        return std::nullopt;
    }
    message.stream = TYStreamState{std::string(text), *processed};
    return message;
}
