// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlaybackSummary.h"

#include "RecordText.h"
#include "TYPlaybackScan.h"

#include <algorithm>
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

std::string AsWord(std::string words) {
    std::ranges::replace(words, ' ', '_');
    return words;
}

}  // namespace

PlaybackSummary Summarize(CTYDatabase& database, std::int64_t playback,
                          const TYPlaybackFacts& facts) {
    const std::vector<TYTimelineRecord> records = ReadRecordsOf(database, playback);
    const TYPlaybackFigures figures = FiguresOf(records, AnalyzePlayback(records), facts);
    PlaybackSummary summary;
    summary.watched = figures.watchedMedia;
    summary.startUp = figures.startUp;
    summary.stalls = std::ssize(figures.stalls);
    summary.stalled = std::reduce(figures.stalls.begin(), figures.stalls.end(), std::int64_t{0});
    summary.end = WordOf(figures.end);
    summary.endClass = AsWord(NameOf(figures.end));
    const std::string reason = DescribeReason(figures.reason);
    summary.reason = figures.reason == TY_STOP_USER ? "user" : AsWord(reason);
    summary.ending = NameOf(figures.end) + (reason.empty() ? "" : ", " + reason);
    summary.completed = CompletionOf(figures).value_or(false);
    return summary;
}
