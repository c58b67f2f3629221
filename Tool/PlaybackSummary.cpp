// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlaybackSummary.h"

#include "TYPlaybackScan.h"

#include <array>
#include <numeric>

namespace {

std::string WordOf(TYPlaybackEnd end) {
    switch (end) {
        case TYPlaybackEnd::EXIT_BEFORE_START:
            return "exited";
        case TYPlaybackEnd::START_FAILURE:
        case TYPlaybackEnd::PLAYBACK_FAILURE:
            return "failed";
        case TYPlaybackEnd::PLAYING:
        case TYPlaybackEnd::LOST:
        case TYPlaybackEnd::STOPPED:
        case TYPlaybackEnd::COUNT:
            break;
    }
    return NameOf(end);
}

std::string ReasonText(TY_STOP_REASON reason) {
    constexpr std::array kReasons = {
        "", ", end of content", ", by user", ", fatal error", ", replaced", ", application closed"};
    return kReasons.at(reason);
}

}  // namespace

PlaybackSummary Summarize(CTYDatabase& database, std::int64_t playback, bool isLive) {
    const std::vector<TYTimelineRecord> records = ReadRecordsOf(database, playback);
    TYPlaybackFacts facts;
    facts.isLive = isLive;
    const TYPlaybackFigures figures = FiguresOf(records, AnalyzePlayback(records), facts);
    PlaybackSummary summary;
    summary.watched = figures.watchedMedia;
    summary.startUp = figures.startUp;
    summary.stalls = std::ssize(figures.stalls);
    summary.stalled = std::reduce(figures.stalls.begin(), figures.stalls.end(), std::int64_t{0});
    summary.end = WordOf(figures.end);
    summary.ending = NameOf(figures.end) + ReasonText(figures.reason);
    return summary;
}
