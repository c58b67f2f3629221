// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPublishAnswer.h"

#include "TYSubjects.h"

#include <nlohmann/json.hpp>

#include <charconv>

namespace {

template <class Number>
void Read(std::string_view text, Number& number) {
    std::from_chars(text.data(), text.data() + text.size(), number);
}

void ReadBody(const TYMessage& message, TYPublishAnswer& answer) {
    const auto json = nlohmann::json::parse(message.body, nullptr, false);
    if (!json.is_object()) {
        answer.refusal = "an answer that is no JSON";
    } else if (json.contains("error")) {
        answer.refusal = json["error"].dump();
    } else if (!json.contains("seq") || !json["seq"].is_number_unsigned()) {
        answer.refusal = "an answer without a sequence";
    } else {
        answer.sequence = json["seq"].get<std::uint64_t>();
    }
}

}  // namespace

std::string TYPublishAnswer::Subject(const std::string& inbox, std::int64_t first,
                                     std::size_t part) {
    return inbox + '.' + std::to_string(first) + '.' + std::to_string(part);
}

TYPublishAnswer TYPublishAnswer::Parse(const TYMessage& message, const std::string& inbox) {
    TYPublishAnswer answer;
    const std::string_view subject = message.subject;
    const std::string_view numbers = subject.substr(std::min(inbox.size(), subject.size()));
    Read(TYSubjects::Part(numbers, 1), answer.first);
    Read(TYSubjects::Part(numbers, 2), answer.part);
    if (message.Header("Status") == "503") {
        answer.refusal = "no stream takes records";
    } else {
        ReadBody(message, answer);
    }
    return answer;
}
