// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ReportErrors.h"

#include "EventNames.h"
#include "TYEventCodes.h"

#include <algorithm>
#include <utility>

void CReportErrors::Add(const TYAnalyzedPlayback& playback) {
    std::map<int, std::int64_t> codes;
    int last = 0;
    for (const TYTimelineRecord& record : playback.records) {
        if (IsError(record.event)) {
            ++codes[record.event];
            last = record.event;
        }
    }
    for (const auto& [code, records] : codes) {
        Error& error = m_Errors[code];
        error.records += records;
        error.playbacks += 1;
        error.fatal += code == last && HasFailed(playback.figures.end) ? 1 : 0;
        if (error.examples.size() < kMostExamples) {
            error.examples.push_back(playback.playback.playbackId);
        }
    }
}

ReportJson CReportErrors::Get() const {
    std::vector<std::pair<int, Error>> sorted(m_Errors.begin(), m_Errors.end());
    std::ranges::stable_sort(sorted, std::greater<>(),
                             [](const auto& each) { return each.second.playbacks; });
    ReportJson errors = ReportJson::array();
    for (const auto& [code, error] : sorted) {
        ReportJson examples = ReportJson::array();
        for (const std::string& example : error.examples) {
            examples.push_back(ReportText(example));
        }
        errors.push_back({{"code", code},
                          {"name", ReportText(EventName(code))},
                          {"records", error.records},
                          {"playbacks", error.playbacks},
                          {"fatal", error.fatal},
                          {"examples", examples}});
    }
    return errors;
}
