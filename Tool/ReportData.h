// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_REPORTDATA_H
#define TALLYRA_TOOL_REPORTDATA_H

#include "KeyFigures.h"
#include "ReportErrors.h"
#include "ReportJson.h"
#include "ReportTrend.h"
#include "ReportWorst.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Collects what a report shows of the playbacks.
class CReportData {
  public:
    static constexpr std::size_t kMostGroups = 20;  ///< of applications, versions and so on

    /// @param now  nanoseconds since the epoch
    explicit CReportData(std::int64_t now) : m_Trend(now) {}

    void Add(const TYAnalyzedPlayback& playback);

    /// @return the data, to which the caller adds what does not come from playbacks
    ReportJson Get() const;

  private:
    CKeyFigures m_All;
    std::vector<std::int64_t> m_StartUps;
    std::vector<std::int64_t> m_Stalls;
    CReportTrend m_Trend;
    CGroupedFigures m_Applications{GroupBy::APPLICATION};
    CGroupedFigures m_Versions{GroupBy::VERSION};
    CGroupedFigures m_Networks{GroupBy::NETWORK};
    std::map<std::size_t, CKeyFigures> m_Signals;  ///< by the class of the signal strength
    CReportErrors m_Errors;
    CReportWorst m_Worst;
    std::int64_t m_nClockSteps = 0;
    std::int64_t m_nFirst = INT64_MAX;  ///< nanoseconds since the epoch
    std::int64_t m_nLast = INT64_MIN;
};

/// @return an array of {"reason", "application", "records", "playbacks", "first", "last"}: what was
///         lost within the selected time, for the selected application
ReportJson ReadReportedLosses(CTYDatabase& database, const TYPlaybackSelection& selection);

#endif  // TALLYRA_TOOL_REPORTDATA_H
