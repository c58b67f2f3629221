// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

#include <algorithm>
#include <cstring>

namespace {

testing::AssertionResult ExactlyOne(std::size_t found, const std::string& text) {
    if (found == 1) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "\"" << text << "\" was logged " << found << " times";
}

}  // namespace

testing::AssertionResult CPlatformTest::Logged(int priority, const std::string& tag,
                                               const std::string& text) {
    return ExactlyOne(m_Platform.CountLog(priority, tag, text), text);
}

testing::AssertionResult CPlatformTest::NotLogged(const std::string& text) {
    const std::size_t found = m_Platform.CountLog(text);
    if (found == 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "\"" << text << "\" was logged " << found << " times";
}

testing::AssertionResult CPlatformTest::LoggedAt(int priority, const std::string& tag,
                                                 const std::string& file,
                                                 const std::string& function, int line,
                                                 const std::string& text) {
    const auto log = m_Platform.Log();
    const auto found =
        std::count_if(log.begin(), log.end(), [&](const CPlatformDouble::LogLine& logged) {
            return logged.priority == priority && logged.tag == tag && logged.file == file &&
                   logged.function == function && logged.line == line && logged.text == text;
        });
    return ExactlyOne(static_cast<std::size_t>(found), text);
}

std::vector<TYMediaData> CSeamTest::SentRecords() {
    std::vector<TYMediaData> records;
    for (const CFakeBus::Call& call : m_Bus.Calls("SendData")) {
        for (const CFakeBus::Argument& argument : call.arguments) {
            if (const auto* pImage = std::get_if<std::vector<char>>(&argument)) {
                TYMediaData record{};
                std::memcpy(&record, pImage->data(), std::min(pImage->size(), sizeof(record)));
                records.push_back(record);
            }
        }
    }
    return records;
}

std::vector<int> CSeamTest::SentEvents() {
    std::vector<int> events;
    for (const TYMediaData& record : SentRecords()) {
        events.push_back(record.event);
    }
    return events;
}

std::vector<std::string> CSeamTest::SentUrls() {
    std::vector<std::string> urls;
    for (const CFakeBus::Call& call : m_Bus.Calls("SendData")) {
        // The function's name is the first text; each triple ends in its payload.
        for (std::size_t i = 5; i < call.arguments.size(); i += 3) {
            if (const auto* pText = std::get_if<std::string>(&call.arguments[i])) {
                urls.push_back(*pText);
            }
        }
    }
    return urls;
}

TYMediaRecord* NewRecord(int event, std::int32_t param1, std::int32_t param2,
                         const std::string& url) {
    auto record = std::make_unique<TYMediaRecord>();
    record->event = static_cast<std::uint8_t>(event);
    record->param1 = param1;
    record->param2 = param2;
    record->pUrl = std::make_shared<const std::string>(url);
    return record.release();
}
