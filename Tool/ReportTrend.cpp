// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ReportTrend.h"

#include <iterator>
#include <tuple>
#include <utility>

namespace {

constexpr std::int64_t kMillisecond = 1'000'000;
constexpr std::int64_t kHour = std::int64_t{3600} * 1000 * kMillisecond;
constexpr std::int64_t kDay = 24 * kHour;

// Rounds down, also before the epoch.
std::int64_t NumberOf(std::int64_t time, std::int64_t unit) {
    return time / unit - (time % unit < 0 ? 1 : 0);
}

}  // namespace

void CReportTrend::Add(const TYAnalyzedPlayback& playback) {
    const std::int64_t begin = playback.playback.begin;
    ++m_nAll;
    m_Hours[NumberOf(begin, kHour)].Add(playback.figures);
    m_Days[NumberOf(begin, kDay)].Add(playback.figures);
}

ReportJson CReportTrend::Get() const {
    const auto shown = [](const Buckets& buckets, std::int64_t latest, std::int64_t most) {
        auto end = buckets.upper_bound(latest);
        auto begin =
            end == buckets.begin() ? end : buckets.lower_bound(std::prev(end)->first - most + 1);
        return std::pair(begin, end);
    };
    auto [begin, end] = shown(m_Hours, NumberOf(m_nNow, kHour), kMostDays * 24);
    const bool byHour = begin == end || std::prev(end)->first - begin->first < kMostHours;
    if (!byHour) {
        std::tie(begin, end) = shown(m_Days, NumberOf(m_nNow, kDay), kMostDays);
    }
    const std::int64_t unit = byHour ? kHour : kDay;
    std::int64_t outside = m_nAll;
    ReportJson buckets = ReportJson::array();
    for (; begin != end; ++begin) {
        ReportJson bucket = JsonOf(begin->second.Get());
        outside -= bucket["playbacks"].get<std::int64_t>();
        bucket["time"] = begin->first * unit / kMillisecond;
        buckets.push_back(std::move(bucket));
    }
    return {{"unit_ms", unit / kMillisecond}, {"outside", outside}, {"buckets", buckets}};
}
