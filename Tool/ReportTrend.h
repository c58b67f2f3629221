// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_REPORTTREND_H
#define TALLYRA_TOOL_REPORTTREND_H

#include "KeyFigures.h"
#include "ReportJson.h"

#include <cstdint>
#include <map>

/// The key figures of each hour or day.
///
/// Players' clocks are sometimes years off. Such playbacks must not squeeze all others into one
/// corner of the chart, so it ends now and covers at most kMostDays; what lies outside is counted.
class CReportTrend {
  public:
    static constexpr std::int64_t kMostDays = 366;
    static constexpr std::int64_t kMostHours = 72;  ///< with more, there is a bucket for each day

    /// @param now  nanoseconds since the epoch
    explicit CReportTrend(std::int64_t now) : m_nNow(now) {}

    void Add(const TYAnalyzedPlayback& playback);

    /// @return {"unit_ms", "outside", "buckets": [{"time", figures}]}, times in milliseconds since
    ///         the epoch
    ReportJson Get() const;

  private:
    using Buckets = std::map<std::int64_t, CKeyFigures>;  ///< by the number of the hour or day

    const std::int64_t m_nNow;
    std::int64_t m_nAll = 0;
    Buckets m_Hours;
    Buckets m_Days;
};

#endif  // TALLYRA_TOOL_REPORTTREND_H
