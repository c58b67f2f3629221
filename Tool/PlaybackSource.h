// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_PLAYBACKSOURCE_H
#define TALLYRA_TOOL_PLAYBACKSOURCE_H

#include "Commands.h"
#include "TYPlaybackScan.h"

#include <functional>
#include <string>

/// How much a command needs to know of each playback.
enum class PlaybackDetail {
    FIGURES,    ///< nothing but the figures, which the database of a fleet has ready
    TIMELINES,  ///< also the records and the timeline
};

using PlaybackVisitor = std::function<void(const TYAnalyzedPlayback&)>;

/// Calls `visit` for each selected playback of the context's database: a store, or a fleet's.
/// @throws std::exception  if it cannot be read; the text names it without its password
void VisitPlaybacks(const Context& context, const TYPlaybackSelection& selection,
                    PlaybackDetail detail, const PlaybackVisitor& visit);

/// The same for the database of a fleet. FleetPlaybacks.cpp reads it; NoFleetPlaybacks.cpp, in a
/// build without the fleet, throws.
void VisitFleetPlaybacks(const Context& context, const TYPlaybackSelection& selection,
                         PlaybackDetail detail, const PlaybackVisitor& visit);

#endif  // TALLYRA_TOOL_PLAYBACKSOURCE_H
