// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "receiver/Report.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace receiver {

namespace {

/// printf into a string.
__attribute__((format(printf, 1, 2))) std::string Format(const char* pFormat, ...) {
    std::array<char, 1024> text;
    va_list arguments;
    va_start(arguments, pFormat);
    std::vsnprintf(text.data(), text.size(), pFormat, arguments);
    va_end(arguments);
    return text.data();
}

std::string TimeOf(const Record& record) {
    const time_t seconds = record.seconds;
    tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 32> text;
    std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
    return Format("%s.%03d", text.data(), record.nanoseconds / 1000000);
}

const char* Mark(Origin origin) {
    return origin == Origin::Derived ? "+" : origin == Origin::Heartbeat ? "~" : " ";
}

std::string Application(const Record& record) {
    const std::string version = record.serviceVersion.empty() ? "" : " " + record.serviceVersion;
    return (record.serviceId.empty() ? "(no application)" : record.serviceId) + version;
}

std::string Padded(const std::string& text, std::size_t width) {
    return text.size() < width ? text + std::string(width - text.size(), ' ') : text;
}

}  // namespace

std::string CReport::RecordLine(const ReceivedRecord& received) {
    const Record& record = received.record;
    const Origin origin = m_origins.Next(record);
    ++m_codes[record.event];
    ++m_byOrigin[origin];
    ++m_nRecords;
    std::string event = Padded(EventName(record.event), 18);
    if (m_bColours) {
        event = (record.event > 200 ? "\033[31m" : "\033[36m") + event + "\033[0m";
    }
    std::string line = TimeOf(record) + "  " + Application(record) + "  " +
                       Padded(record.playbackId.empty() ? "(no playback)" : record.playbackId, 24) +
                       " " + Mark(origin) + " " + event + " " +
                       Padded(DescribeParameters(record), 34) + " " + received.strUrl;
    if (!record.title.empty()) {
        line += "  \"" + record.title + "\"";
    }
    return line + "\n";
}

std::string CReport::Lines(const Call& call, const std::vector<ReceivedRecord>& records) {
    std::string lines;
    if (call.strFunction == "SendData") {
        ++m_nBatches;
        lines += Format("-- batch %zu: %zu records from %s\n", m_nBatches, records.size(),
                        call.strSender.c_str());
    } else if (call.strFunction != "Kick") {
        lines += "-- " + call.strFunction + " from " + call.strSender + "\n";
    }
    if (!call.strProblem.empty()) {
        m_problems.push_back(call.strProblem);
        lines += "-- malformed: " + call.strProblem + "\n";
    }
    for (const ReceivedRecord& record : records) {
        if (!record.record.strProblem.empty()) {
            m_problems.push_back(record.record.strProblem);
        }
        lines += RecordLine(record);
    }
    return lines;
}

std::string CReport::Summary() const {
    const auto of = [this](Origin origin) {
        const auto found = m_byOrigin.find(origin);
        return found == m_byOrigin.end() ? std::size_t{0} : found->second;
    };
    std::string text = Format("summary: %zu records in %zu batches\n", m_nRecords, m_nBatches);
    for (const auto& [code, count] : m_codes) {
        text += Format("  %3d  %s %5zu\n", code, Padded(EventName(code), 18).c_str(), count);
    }
    text += Format("  reported by the player      %5zu\n", of(Origin::Reported));
    text += Format("  ~ heartbeats of play time   %5zu\n", of(Origin::Heartbeat));
    text += Format("  + derived by the analyzer   %5zu\n", of(Origin::Derived));
    text += Format("  malformed                   %5zu\n", m_problems.size());
    for (const std::string& problem : m_problems) {
        text += "    " + problem + "\n";
    }
    return text;
}

}  // namespace receiver
