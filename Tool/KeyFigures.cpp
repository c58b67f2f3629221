// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "KeyFigures.h"

#include "TypeNames.h"

#include <cmath>
#include <numeric>
#include <span>
#include <string_view>

namespace {

constexpr double kHour = 3600.0 * 1000;
constexpr std::size_t kDayLength = std::string_view("2026-11-21").size();
constexpr std::size_t kHourLength = std::string_view("2026-11-21T07").size();
constexpr std::size_t kTimeLength = std::string_view("2026-11-21T07:30:15.250").size();

std::int64_t SumOf(const std::vector<std::int64_t>& values) {
    return std::accumulate(values.begin(), values.end(), std::int64_t{0});
}

void Append(std::span<const std::int64_t> values, std::vector<std::int64_t>& all) {
    all.insert(all.end(), values.begin(), values.end());
}

void Add(const std::optional<std::int64_t>& value, std::optional<std::int64_t>& sum) {
    if (value) {
        sum = sum.value_or(0) + *value;
    }
}

std::optional<double> Ratio(std::int64_t part, std::int64_t whole) {
    if (whole == 0) {
        return std::nullopt;
    }
    return static_cast<double>(part) / static_cast<double>(whole);
}

// A group without a name would be a blank.
std::string KnownName(const std::string& name) {
    return name.empty() ? "unknown" : name;
}

// Keeps the zone, "Z" or an offset.
std::string HourOf(const std::string& time) {
    return time.substr(0, kHourLength) + ":00" + time.substr(kTimeLength);
}

}  // namespace

std::optional<double> TYKeyFigures::StalledRatio() const {
    const std::int64_t waiting = stalled + seekStalled + switchStalled;
    return Ratio(waiting, playing + waiting);
}

std::optional<double> TYKeyFigures::ConnectionStalledRatio() const {
    return Ratio(stalled, playing + stalled);
}

std::optional<double> TYKeyFigures::StallsPerHour() const {
    if (playing == 0) {
        return std::nullopt;
    }
    return static_cast<double>(stalls) / (static_cast<double>(playing) / kHour);
}

void CKeyFigures::Add(const TYPlaybackFigures& figures) {
    AddEnd(figures);
    AddStalls(figures);
    AddPicture(figures);
    m_Sums.playing += figures.playing;
    m_Sums.paused += figures.paused;
    if (figures.startUp) {
        m_StartUps.push_back(*figures.startUp);
    }
    Append(figures.seeks, m_Seeks);
}

// A lost playback may have ended in any way, so it counts as no kind of failure.
void CKeyFigures::AddEnd(const TYPlaybackFigures& figures) {
    const auto add = [](TYShare& share, bool applies, bool is) {
        share.of += applies ? 1 : 0;
        share.count += applies && is ? 1 : 0;
    };
    const TYPlaybackEnd end = figures.end;
    const bool isKnown = figures.started || HasEnded(figures);
    m_Sums.playbacks += 1;
    m_Sums.started += figures.started ? 1 : 0;
    add(m_Sums.startFailures, isKnown, end == TYPlaybackEnd::START_FAILURE);
    add(m_Sums.exitsBeforeStart, isKnown, end == TYPlaybackEnd::EXIT_BEFORE_START);
    add(m_Sums.playbackFailures, figures.started, end == TYPlaybackEnd::PLAYBACK_FAILURE);
    add(m_Sums.lost, true, end == TYPlaybackEnd::LOST);
    const std::optional<bool> completed = CompletionOf(figures);
    add(m_Sums.completed, completed.has_value(), completed.value_or(false));
}

void CKeyFigures::AddStalls(const TYPlaybackFigures& figures) {
    const auto add = [](const std::vector<std::int64_t>& stalls, std::int64_t& count,
                        std::int64_t& time) {
        count += static_cast<std::int64_t>(stalls.size());
        time += SumOf(stalls);
    };
    add(figures.stalls, m_Sums.stalls, m_Sums.stalled);
    add(figures.seekStalls, m_Sums.seekStalls, m_Sums.seekStalled);
    add(figures.switchStalls, m_Sums.switchStalls, m_Sums.switchStalled);
    Append(MeasuredStalls(figures), m_Stalls);
    if (figures.started) {
        m_StallsEach.push_back(static_cast<std::int64_t>(figures.stalls.size()));
    }
}

void CKeyFigures::AddPicture(const TYPlaybackFigures& figures) {
    if (figures.lastPosition) {
        m_Sums.watchedMedia = m_Sums.watchedMedia.value_or(0) + figures.watchedMedia;
    }
    if (figures.averageKbps) {
        m_WeightedKbps +=
            static_cast<double>(*figures.averageKbps) * static_cast<double>(figures.renditionTime);
        m_nRenditionTime += figures.renditionTime;
    }
    ::Add(figures.switches, m_Sums.switches);
    ::Add(figures.framesDropped, m_Sums.framesDropped);
    ::Add(figures.framesRendered, m_Sums.framesRendered);
}

TYKeyFigures CKeyFigures::Get() const {
    TYKeyFigures all = m_Sums;
    all.startUp = PercentilesOf(m_StartUps);
    all.stallLength = PercentilesOf(m_Stalls);
    all.seekTime = PercentilesOf(m_Seeks);
    all.stallsEach = PercentilesOf(m_StallsEach);
    if (m_nRenditionTime > 0) {
        all.averageKbps = std::llround(m_WeightedKbps / static_cast<double>(m_nRenditionTime));
    }
    return all;
}

std::string GroupOf(const TYStoredPlayback& playback, GroupBy by, Zone zone) {
    switch (by) {
        case GroupBy::ALL:
            return "all";
        case GroupBy::APPLICATION:
            return KnownName(playback.application);
        case GroupBy::VERSION:
            return KnownName(playback.application) + " " + KnownName(playback.version);
        case GroupBy::PLAYER:
            return PlayerName(playback.player);
        case GroupBy::NETWORK:
            return NetworkName(playback.network);
        case GroupBy::CONTENT_TYPE:
            return ContentName(playback.contentType);
        case GroupBy::DRM:
            return DrmName(playback.drm);
        case GroupBy::HOUR:
            return HourOf(FormatTime(playback.begin, zone));
        case GroupBy::DAY:
            return FormatTime(playback.begin, zone).substr(0, kDayLength);
    }
    return "";
}

void CGroupedFigures::Add(const TYAnalyzedPlayback& playback) {
    m_Groups[GroupOf(playback.playback, m_By, m_Zone)].Add(playback.figures);
}

std::vector<std::pair<std::string, TYKeyFigures>> CGroupedFigures::Get() const {
    if (m_By == GroupBy::ALL && m_Groups.empty()) {
        return {{"all", TYKeyFigures()}};
    }
    std::vector<std::pair<std::string, TYKeyFigures>> groups;
    for (const auto& [name, figures] : m_Groups) {
        groups.emplace_back(name, figures.Get());
    }
    return groups;
}
