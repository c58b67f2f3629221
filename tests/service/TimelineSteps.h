// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_TIMELINESTEPS_H
#define TALLYRA_TESTS_SERVICE_TIMELINESTEPS_H

#include "TYEventCodes.h"
#include "TYTimeline.h"

/// A record of a test's playback.
struct TimelineStep {
    std::int64_t ms;  ///< since the epoch
    int event;
    std::int32_t param1 = 0;
    std::int32_t param2 = 0;
};

using TimelineSteps = std::vector<TimelineStep>;

/// @return the records, with the ids 1, 2, ...
inline std::vector<TYTimelineRecord> RecordsOf(const TimelineSteps& steps) {
    std::vector<TYTimelineRecord> records;
    for (const TimelineStep& step : steps) {
        records.push_back({std::ssize(records) + 1, step.ms, step.event, step.param1, step.param2});
    }
    return records;
}

/// @return the steps with a START at 0 and a first frame at 1000 in front of them
inline TimelineSteps Started(TimelineSteps steps) {
    steps.insert(
        steps.begin(),
        {{0, TY_EVENT_START}, {1000, TY_EVENT_RENDER_START}, {1000, TY_EVENT_PLAYBACK_TIME, 0}});
    return steps;
}

#endif  // TALLYRA_TESTS_SERVICE_TIMELINESTEPS_H
