// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ReportWorst.h"

#include "EventNames.h"
#include "TYEventCodes.h"
#include "TimeText.h"
#include "TypeNames.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <vector>

namespace {

std::int64_t WaitedIn(const TYTimeline& timeline) {
    std::int64_t waited = 0;
    for (const TYPhase& phase : timeline.phases) {
        const bool isWait = phase.kind == TYPhaseKind::START_UP ||
                            phase.kind == TYPhaseKind::SEEKING ||
                            phase.kind == TYPhaseKind::STALLED;
        waited += isWait ? phase.length : 0;
    }
    return waited;
}

const char* NameOf(const TYPhase& phase) {
    if (phase.cause == TY_STALL_SEEK) {
        return "stalled after a seek";
    }
    return phase.cause == TY_STALL_RENDITION_SWITCH ? "stalled at a change of the rendition"
                                                    : NameOf(phase.kind);
}

// Nothing for events whose meaning the phases show, and for what the library itself reports about
// the order of calls.
const char* MarkOf(int event) {
    switch (event) {
        case TY_EVENT_SEEK:
            return "seek";
        case TY_EVENT_PAUSE:
            return "pause";
        case TY_EVENT_STOP:
            return "stop";
        case TY_EVENT_RENDITION:
            return "rendition";
        default:
            return IsError(event) ? "error" : nullptr;
    }
}

ReportJson PhasesOf(const TYTimeline& timeline) {
    std::vector<TYPhase> phases = timeline.phases;
    if (phases.size() > CReportWorst::kMostPhases) {
        std::ranges::nth_element(phases, phases.begin() + CReportWorst::kMostPhases,
                                 std::greater<>(), &TYPhase::length);
        phases.resize(CReportWorst::kMostPhases);
        std::ranges::sort(phases, {}, &TYPhase::begin);
    }
    ReportJson json = ReportJson::array();
    for (const TYPhase& phase : phases) {
        if (phase.length > 0) {
            json.push_back({NameOf(phase), phase.begin, phase.begin + phase.length});
        }
    }
    return json;
}

ReportJson EventsOf(const TYAnalyzedPlayback& playback) {
    const std::vector<std::int64_t>& offsets = playback.timeline.offsets;
    ReportJson json = ReportJson::array();
    for (std::size_t i = 0; i < offsets.size() && json.size() < CReportWorst::kMostEvents; ++i) {
        const int event = playback.records[i].event;
        if (const char* pMark = MarkOf(event)) {
            json.push_back({pMark, offsets[i], ReportText(EventName(event))});
        }
    }
    return json;
}

std::int64_t SumOf(const std::vector<std::int64_t>& times) {
    return std::accumulate(times.begin(), times.end(), std::int64_t{0});
}

ReportJson JsonOf(const TYAnalyzedPlayback& each, std::int64_t waited) {
    const TYStoredPlayback& playback = each.playback;
    const TYPlaybackFigures& figures = each.figures;
    const std::string& title = playback.title.empty() ? playback.url : playback.title;
    const std::vector<std::int64_t>& offsets = each.timeline.offsets;
    return {{"playback", ReportText(playback.playbackId)},
            {"application", ReportText(playback.application)},
            {"version", ReportText(playback.version)},
            {"network", NetworkName(playback.network)},
            {"title", ReportText(title)},
            {"begin", FormatTime(playback.begin)},
            {"end", NameOf(figures.end)},
            {"startup_ms", figures.startUp ? ReportJson(*figures.startUp) : ReportJson()},
            {"stalls", figures.stalls.size()},
            {"stalled_ms", SumOf(figures.stalls)},
            {"playing_ms", figures.playing},
            {"waited_ms", waited},
            {"errors", figures.errors},
            {"length_ms", offsets.empty() ? 0 : offsets.back()},
            {"phases", PhasesOf(each.timeline)},
            {"events", EventsOf(each)}};
}

}  // namespace

void CReportWorst::Add(const TYAnalyzedPlayback& playback) {
    const std::int64_t waited = WaitedIn(playback.timeline);
    const std::int64_t score = waited + (HasFailed(playback.figures.end) ? kFailure : 0);
    const bool isFull = m_Worst.size() == kMost;
    if (score == 0 || (isFull && score <= m_Worst.rbegin()->first)) {
        return;
    }
    if (isFull) {
        m_Worst.erase(std::prev(m_Worst.end()));
    }
    m_Worst.emplace(score, JsonOf(playback, waited));
}

ReportJson CReportWorst::Get() const {
    ReportJson worst = ReportJson::array();
    for (const auto& [score, playback] : m_Worst) {
        worst.push_back(playback);
    }
    return worst;
}
