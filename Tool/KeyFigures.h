// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_KEYFIGURES_H
#define TALLYRA_TOOL_KEYFIGURES_H

#include "Statistics.h"
#include "TYPlaybackScan.h"
#include "TimeText.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The key figures of a group of playbacks. docs/kpi.md defines each. Times are milliseconds.
/// Nothing stands where no record tells.
struct TYKeyFigures {
    std::int64_t playbacks = 0;
    std::int64_t started = 0;
    TYShare startFailures;      ///< of those that started or ended
    TYShare exitsBeforeStart;   ///< of those that started or ended
    TYShare playbackFailures;   ///< of those that started
    TYShare lost;               ///< of all
    TYShare completed;          ///< of those that started, ended and tell
    TYPercentiles startUp;      ///< of those that started with START
    TYPercentiles stallLength;  ///< stalls caused by the connection
    TYPercentiles seekTime;     ///< complete seeks, their stalls included
    TYPercentiles stallsEach;   ///< numbers of connection stalls of those that started
    std::int64_t stalls = 0;    ///< caused by the connection
    std::int64_t stalled = 0;
    std::int64_t seekStalls = 0;
    std::int64_t seekStalled = 0;
    std::int64_t switchStalls = 0;  ///< caused by a change of the rendition
    std::int64_t switchStalled = 0;
    std::int64_t playing = 0;
    std::int64_t paused = 0;
    std::optional<std::int64_t> watchedMedia;
    std::optional<std::int64_t> averageKbps;  ///< weighted by playing time
    std::optional<std::int64_t> switches;
    std::optional<std::int64_t> framesDropped;
    std::optional<std::int64_t> framesRendered;

    /// @return stalled time, whatever the cause, out of playing and stalled time
    std::optional<double> StalledRatio() const;
    /// @return the same, with stalls caused by the connection only
    std::optional<double> ConnectionStalledRatio() const;
    /// @return connection stalls for each hour of playing
    std::optional<double> StallsPerHour() const;
};

/// Adds up the figures of playbacks. Use, for example:
///
///     CKeyFigures figures;
///     ScanPlaybacks(database, selection, now,
///                   [&](const TYAnalyzedPlayback& each) { figures.Add(each.figures); });
///     const TYKeyFigures all = figures.Get();
class CKeyFigures {
  public:
    void Add(const TYPlaybackFigures& figures);
    TYKeyFigures Get() const;

  private:
    void AddEnd(const TYPlaybackFigures& figures);
    void AddStalls(const TYPlaybackFigures& figures);
    void AddPicture(const TYPlaybackFigures& figures);

    TYKeyFigures m_Sums;
    std::vector<std::int64_t> m_StartUps;
    std::vector<std::int64_t> m_Stalls;
    std::vector<std::int64_t> m_Seeks;
    std::vector<std::int64_t> m_StallsEach;
    double m_WeightedKbps = 0;
    std::int64_t m_nRenditionTime = 0;
};

/// What playbacks are grouped by. HOUR and DAY are those of their start.
enum class GroupBy { ALL, APPLICATION, VERSION, PLAYER, NETWORK, CONTENT_TYPE, DRM, HOUR, DAY };

/// @param zone  of HOUR and DAY
/// @return the name of the group that a playback belongs to, such as "wifi", "2026-11-21T07:00Z",
///         "2026-11-21", or "org.example.tv 1.9.0" for VERSION. "unknown" stands for a name that no
///         record tells. Applications and versions are texts of players: escape them.
std::string GroupOf(const TYStoredPlayback& playback, GroupBy by, Zone zone = Zone::UTC);

/// The key figures of each group, by name.
class CGroupedFigures {
  public:
    explicit CGroupedFigures(GroupBy by, Zone zone = Zone::UTC) : m_By(by), m_Zone(zone) {}

    void Add(const TYAnalyzedPlayback& playback);
    /// @return the groups in the order of their names. With GroupBy::ALL always one, named "all".
    std::vector<std::pair<std::string, TYKeyFigures>> Get() const;

  private:
    const GroupBy m_By;
    const Zone m_Zone;
    std::map<std::string, CKeyFigures> m_Groups;
};

#endif  // TALLYRA_TOOL_KEYFIGURES_H
