// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ReportData.h"

#include "TimeText.h"

#include <algorithm>
#include <array>
#include <utility>

namespace {

using Group = std::pair<std::string, TYKeyFigures>;

struct SignalClass {
    std::int64_t weakest;  ///< dBm
    const char* pName;
};

constexpr std::array kSignalClasses = {
    SignalClass{-50, "-50 dBm or more"}, SignalClass{-60, "-60 to -51 dBm"},
    SignalClass{-70, "-70 to -61 dBm"}, SignalClass{-80, "-80 to -71 dBm"},
    SignalClass{INT64_MIN, "less than -80 dBm"}};

constexpr const char* kLosses = R"sql(
SELECT reason, application, sum(records), sum(playbacks), min(at), max(at) FROM losses
WHERE at >= ?1 AND at < ?2 AND (?3 IS NULL OR application = ?3)
GROUP BY reason, application ORDER BY sum(records) DESC, reason, application
)sql";

std::size_t ClassOfSignal(std::int64_t signal) {
    std::size_t number = 0;
    while (signal < kSignalClasses.at(number).weakest) {
        ++number;
    }
    return number;
}

ReportJson JsonOf(const std::vector<Group>& groups) {
    ReportJson json = ReportJson::array();
    for (const auto& [name, figures] : groups) {
        ReportJson group = JsonOf(figures);
        group["name"] = ReportText(name);
        json.push_back(std::move(group));
    }
    return json;
}

// The largest groups.
ReportJson LargestOf(std::vector<Group> groups) {
    std::ranges::stable_sort(groups, std::greater<>(),
                             [](const Group& group) { return group.second.playbacks; });
    const std::size_t shown = std::min(groups.size(), CReportData::kMostGroups);
    const std::size_t leftOut = groups.size() - shown;
    groups.resize(shown);
    return {{"left_out", leftOut}, {"groups", JsonOf(groups)}};
}

ReportJson SignalsOf(const std::map<std::size_t, CKeyFigures>& signals) {
    std::vector<Group> groups;
    groups.reserve(signals.size());
    for (const auto& [number, figures] : signals) {
        groups.emplace_back(kSignalClasses.at(number).pName, figures.Get());
    }
    return {{"left_out", 0}, {"groups", JsonOf(groups)}};
}

}  // namespace

void CReportData::Add(const TYAnalyzedPlayback& playback) {
    const TYPlaybackFigures& figures = playback.figures;
    const std::int64_t begin = playback.playback.begin;
    m_nFirst = std::min(m_nFirst, begin);
    m_nLast = std::max(m_nLast, begin);
    m_All.Add(figures);
    if (figures.startUp) {
        m_StartUps.push_back(*figures.startUp);
    }
    const std::span<const std::int64_t> stalls = MeasuredStalls(figures);
    m_Stalls.insert(m_Stalls.end(), stalls.begin(), stalls.end());
    m_Trend.Add(playback);
    for (CGroupedFigures* pGroups : {&m_Applications, &m_Versions, &m_Networks}) {
        pGroups->Add(playback);
    }
    if (figures.signal) {
        m_Signals[ClassOfSignal(*figures.signal)].Add(figures);
    }
    m_Errors.Add(playback);
    m_Worst.Add(playback);
    m_nClockSteps += figures.clockSteps;
}

ReportJson CReportData::Get() const {
    const TYKeyFigures all = m_All.Get();
    const bool isEmpty = all.playbacks == 0;
    return {{"first", isEmpty ? ReportJson() : ReportJson(FormatTime(m_nFirst))},
            {"last", isEmpty ? ReportJson() : ReportJson(FormatTime(m_nLast))},
            {"clock_steps", m_nClockSteps},
            {"all", JsonOf(all)},
            {"startup", HistogramOf(m_StartUps)},
            {"stall", HistogramOf(m_Stalls)},
            {"trend", m_Trend.Get()},
            {"application", LargestOf(m_Applications.Get())},
            {"version", LargestOf(m_Versions.Get())},
            {"network", LargestOf(m_Networks.Get())},
            {"signal", SignalsOf(m_Signals)},
            {"errors", m_Errors.Get()},
            {"worst", m_Worst.Get()}};
}

ReportJson ReadReportedLosses(CTYDatabase& database, const TYPlaybackSelection& selection) {
    CTYStatement each(database, kLosses);
    each.Begin(selection.since, selection.until, nullptr);
    if (!selection.application.empty()) {
        each.Bind(3, selection.application);
    }
    ReportJson losses = ReportJson::array();
    while (each.Step()) {
        losses.push_back({{"reason", ReportText(each.Text(0))},
                          {"application", ReportText(each.Text(1))},
                          {"records", each.Int(2)},
                          {"playbacks", each.Int(3)},
                          {"first", FormatTime(each.Int(4))},
                          {"last", FormatTime(each.Int(5))}});
    }
    return losses;
}
