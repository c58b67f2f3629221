// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_REPORTWORST_H
#define TALLYRA_TOOL_REPORTWORST_H

#include "ReportJson.h"
#include "TYPlaybackScan.h"

#include <cstdint>
#include <functional>
#include <map>

/// Keeps the playbacks that annoyed their viewers most, with their timelines.
///
/// The order is that of the time that the viewer waited for a picture: start-up, seeks and stalls.
/// A failure counts like kFailure more, so that one that comes quickly is not among the good ones.
class CReportWorst {
  public:
    static constexpr std::size_t kMost = 20;
    static constexpr std::int64_t kFailure = 30'000;  ///< milliseconds
    /// Phases and events of one playback that are kept: the longest, and the first.
    static constexpr std::size_t kMostPhases = 400;
    static constexpr std::size_t kMostEvents = 200;

    void Add(const TYAnalyzedPlayback& playback);

    /// @return an array of playbacks with "phases" as [kind, begin, end] and "events" as [kind,
    ///         time, name], times in milliseconds since the first record; the worst first
    ReportJson Get() const;

  private:
    std::multimap<std::int64_t, ReportJson, std::greater<>> m_Worst;
};

#endif  // TALLYRA_TOOL_REPORTWORST_H
