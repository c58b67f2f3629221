// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPlaybackFigures.h"

#include "TYEventCodes.h"
#include "TYWatchedMedia.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>

namespace {

using Records = std::span<const TYTimelineRecord>;

// Credits are often skipped: from here on the content counts as completed.
constexpr std::int64_t kCompletePercent = 95;
// What the library reports for a signal that cannot be read.
constexpr std::int32_t kNoSignal = -200;

/// A time within a PLAYING phase, in milliseconds since the first record.
struct PlayingTime {
    std::int64_t begin;
    std::int64_t end;
};

// Calls a function with each time of playing from `begin` to `end`, in their order.
template <class Visit>
void ForEachPlayingTime(const TYTimeline& timeline, std::int64_t begin, std::int64_t end,
                        const Visit& visit) {
    for (const TYPhase& phase : timeline.phases) {
        const PlayingTime time{std::max(phase.begin, begin),
                               std::min(phase.begin + phase.length, end)};
        if (phase.kind == TYPhaseKind::PLAYING && time.begin < time.end) {
            visit(time);
        }
    }
}

std::int64_t PlayingBetween(const TYTimeline& timeline, std::int64_t begin, std::int64_t end) {
    std::int64_t playing = 0;
    ForEachPlayingTime(timeline, begin, end,
                       [&](const PlayingTime& time) { playing += time.end - time.begin; });
    return playing;
}

// Between two recorded positions, only STOP tells that the position advanced after an error.
bool PlaysOn(Records records, const TYTimeline& timeline, std::size_t error) {
    const auto last = std::find_if(records.rend() - static_cast<std::ptrdiff_t>(error),
                                   records.rend(), IsPosition);
    if (last == records.rend()) {
        return false;
    }
    const auto index = static_cast<std::size_t>(records.rend() - last) - 1;
    const std::int64_t reached =
        last->param1 + PlayingBetween(timeline, timeline.offsets[index], timeline.offsets[error]);
    return records.back().param1 > reached + kPositionTolerance;
}

// Whether a record shows that there was a picture after an error. BUFFERING_START and SEEK do not:
// a picture need not follow them.
bool ShowsLife(const TYTimelineRecord& record) {
    return record.event == TY_EVENT_BUFFERING_END || record.event == TY_EVENT_RENDER_START ||
           IsPosition(record);
}

// Without a told reason, an error is fatal if no picture followed it.
bool EndsWithError(Records records, const TYTimeline& timeline) {
    for (std::size_t i = records.size(); i-- > 0;) {
        if (IsError(records[i].event)) {
            return !PlaysOn(records, timeline, i);
        }
        if (ShowsLife(records[i])) {
            return false;
        }
    }
    return false;
}

TY_STOP_REASON ReasonOf(Records records) {
    const bool stopped = !records.empty() && records.back().event == TY_EVENT_STOP;
    const std::int32_t told = stopped ? records.back().param2 : 0;
    const bool isReason = told > TY_STOP_NOT_TOLD && told <= TY_STOP_APPLICATION_CLOSED;
    return isReason ? static_cast<TY_STOP_REASON>(told) : TY_STOP_NOT_TOLD;
}

bool IsFatal(Records records, const TYTimeline& timeline, TY_STOP_REASON reason) {
    return reason == TY_STOP_NOT_TOLD ? EndsWithError(records, timeline)
                                      : reason == TY_STOP_FATAL_ERROR;
}

TYPlaybackEnd EndOf(Records records, const TYTimeline& timeline, TY_STOP_REASON reason,
                    bool isLive) {
    if (!timeline.hasStop) {
        return isLive ? TYPlaybackEnd::PLAYING : TYPlaybackEnd::LOST;
    }
    if (IsFatal(records, timeline, reason)) {
        return timeline.rendered ? TYPlaybackEnd::PLAYBACK_FAILURE : TYPlaybackEnd::START_FAILURE;
    }
    return timeline.rendered ? TYPlaybackEnd::STOPPED : TYPlaybackEnd::EXIT_BEFORE_START;
}

// Whether no record tells how long a stall was. Ids increase, so it is the last stall of its cause.
bool IsUnmeasured(const TYPhase& stall, const TYTimeline& timeline) {
    return stall.length == 0 && !timeline.hasStop && stall.opener == timeline.phases.back().opener;
}

void AddPhases(const TYTimeline& timeline, TYPlaybackFigures& figures) {
    std::map<std::int64_t, TYPhase> stalls;
    for (const TYPhase& phase : timeline.phases) {
        if (phase.kind == TYPhaseKind::PLAYING) {
            figures.playing += phase.length;
        } else if (phase.kind == TYPhaseKind::PAUSED) {
            figures.paused += phase.length;
        } else if (phase.kind == TYPhaseKind::STALLED) {
            const auto [stall, isNew] = stalls.try_emplace(phase.opener, phase);
            stall->second.length += isNew ? 0 : phase.length;
        }
    }
    for (const auto& [opener, stall] : stalls) {
        if (stall.cause == TY_STALL_CONNECTION) {
            figures.stalls.push_back(stall.length);
            figures.unmeasuredStalls = IsUnmeasured(stall, timeline) ? 1 : 0;
        } else if (stall.cause == TY_STALL_SEEK) {
            figures.seekStalls.push_back(stall.length);
        } else if (stall.cause == TY_STALL_RENDITION_SWITCH) {
            figures.switchStalls.push_back(stall.length);
        }
    }
    for (const TYSeek& seek : timeline.seeks) {
        if (seek.complete) {
            figures.seeks.push_back(seek.length);
        }
    }
}

struct Rendition {
    std::int64_t kbps;
    std::int64_t begin;
};

// Renditions in the order of their times. A repeated one is no switch.
std::vector<Rendition> RenditionsOf(Records records, const TYTimeline& timeline) {
    std::vector<Rendition> renditions;
    for (std::size_t i = 0; i < records.size(); ++i) {
        const bool isRendition = records[i].event == TY_EVENT_RENDITION && records[i].param1 > 0;
        if (isRendition && (renditions.empty() || renditions.back().kbps != records[i].param1)) {
            renditions.push_back({records[i].param1, timeline.offsets[i]});
        }
    }
    return renditions;
}

// Finds the rendition at each time of playing. Both are in the order of time, so one pass over both
// is enough.
void AddBitrate(const std::vector<Rendition>& renditions, const TYTimeline& timeline,
                TYPlaybackFigures& figures) {
    double weighted = 0;
    std::size_t next = 1;
    const auto add = [&](PlayingTime time) {
        while (time.begin < time.end) {
            while (next < renditions.size() && renditions[next].begin <= time.begin) {
                ++next;
            }
            const std::int64_t until =
                next < renditions.size() ? std::min(renditions[next].begin, time.end) : time.end;
            figures.renditionTime += until - time.begin;
            weighted += static_cast<double>(until - time.begin) *
                        static_cast<double>(renditions[next - 1].kbps);
            time.begin = until;
        }
    };
    ForEachPlayingTime(timeline, renditions.front().begin, INT64_MAX, add);
    if (figures.renditionTime > 0) {
        figures.averageKbps = std::llround(weighted / static_cast<double>(figures.renditionTime));
    }
}

void AddRenditions(Records records, const TYTimeline& timeline, TYPlaybackFigures& figures) {
    const std::vector<Rendition> renditions = RenditionsOf(records, timeline);
    if (!renditions.empty()) {
        figures.switches = static_cast<std::int64_t>(renditions.size()) - 1;
        AddBitrate(renditions, timeline, figures);
    }
}

// Frames are counted from START, so the largest numbers are the totals.
void AddFrames(Records records, TYPlaybackFigures& figures) {
    for (const TYTimelineRecord& record : records) {
        if (record.event == TY_EVENT_DROPPED_FRAMES) {
            figures.framesDropped =
                std::max<std::int64_t>(record.param1, figures.framesDropped.value_or(0));
            figures.framesRendered =
                std::max<std::int64_t>(record.param2, figures.framesRendered.value_or(0));
        }
    }
}

// What is still playing, or lost, may yet come to its end.
std::optional<bool> IsCompleted(const TYPlaybackFigures& figures, const TYPlaybackFacts& facts,
                                bool hasStop, bool isNearEnd) {
    const bool hasReached = facts.hasEnd && facts.duration > 0 && isNearEnd;
    if (figures.reason == TY_STOP_END_OF_CONTENT || hasReached) {
        return true;
    }
    const bool isKnown = facts.duration > 0 || figures.reason != TY_STOP_NOT_TOLD;
    return hasStop && isKnown && facts.hasEnd ? std::optional(false) : std::nullopt;
}

void AddMedia(Records records, const TYTimeline& timeline, const TYPlaybackFacts& facts,
              TYPlaybackFigures& figures) {
    const std::vector<TYSegment> segments = WatchedSegments(records, timeline.offsets);
    figures.watchedMedia = LengthOf(segments);
    if (!segments.empty()) {
        figures.lastPosition = segments.back().end;
    }
    const auto furthest = std::ranges::max_element(segments, {}, &TYSegment::end);
    const bool isNearEnd =
        furthest != segments.end() && furthest->end * 100 >= facts.duration * kCompletePercent;
    figures.completed = IsCompleted(figures, facts, timeline.hasStop, isNearEnd);
}

std::optional<std::int64_t> SignalOf(Records records) {
    const auto first = std::ranges::find_if(records, [](const TYTimelineRecord& record) {
        return record.event == TY_EVENT_BUFFERING_START && record.param2 != kNoSignal;
    });
    return first == records.end() ? std::nullopt : std::optional<std::int64_t>(first->param2);
}

}  // namespace

const char* NameOf(TYPlaybackEnd end) {
    static constexpr std::array kNames = {"playing",           "lost",          "stopped",
                                          "exit before start", "start failure", "playback failure"};
    static_assert(kNames.size() == static_cast<std::size_t>(TYPlaybackEnd::COUNT));
    return kNames.at(static_cast<std::size_t>(end));
}

std::span<const std::int64_t> MeasuredStalls(const TYPlaybackFigures& figures) {
    return std::span(figures.stalls)
        .first(figures.stalls.size() - static_cast<std::size_t>(figures.unmeasuredStalls));
}

bool HasEnded(const TYPlaybackFigures& figures) {
    return figures.end != TYPlaybackEnd::PLAYING && figures.end != TYPlaybackEnd::LOST;
}

std::optional<bool> CompletionOf(const TYPlaybackFigures& figures) {
    return figures.started && HasEnded(figures) ? figures.completed : std::nullopt;
}

TYPlaybackFigures FiguresOf(Records records, const TYTimeline& timeline,
                            const TYPlaybackFacts& facts) {
    records = records.first(timeline.offsets.size());
    TYPlaybackFigures figures;
    figures.reason = ReasonOf(records);
    figures.end = EndOf(records, timeline, figures.reason, facts.isLive);
    figures.started = timeline.rendered;
    figures.startUp = timeline.startUp;
    figures.clockSteps = timeline.clockSteps;
    figures.errors = std::ranges::count_if(records, IsError, &TYTimelineRecord::event);
    AddPhases(timeline, figures);
    AddMedia(records, timeline, facts, figures);
    AddRenditions(records, timeline, figures);
    AddFrames(records, figures);
    if (facts.onWifi) {
        figures.signal = SignalOf(records);
    }
    return figures;
}
