// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ReportJson.h"

#include "FigureJson.h"
#include "Rows.h"

#include <glib.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <optional>

namespace {

constexpr glong kLongestText = 160;
constexpr int kClassesPerDecade = 10;
constexpr int kFirstClass = 10;  // from 10 ms
constexpr int kLastClass = 69;   // up to 10,000 s

// What operators look for first: failed in any way, out of those that started or ended.
TYShare FailedOf(const TYKeyFigures& figures) {
    return {figures.startFailures.count + figures.playbackFailures.count, figures.startFailures.of};
}

int ClassOf(std::int64_t time) {
    if (time <= 0) {
        return kFirstClass;
    }
    const double exponent = std::log10(static_cast<double>(time)) * kClassesPerDecade;
    return std::clamp(static_cast<int>(std::floor(exponent)), kFirstClass, kLastClass);
}

std::int64_t BoundOf(int number) {
    return std::llround(std::pow(10.0, static_cast<double>(number) / kClassesPerDecade));
}

}  // namespace

std::string ReportText(std::string_view text) {
    std::string printable = Printable(text);
    if (g_utf8_strlen(printable.c_str(), -1) > kLongestText) {
        printable.resize(static_cast<std::size_t>(
            g_utf8_offset_to_pointer(printable.c_str(), kLongestText) - printable.c_str()));
        printable += "…";
    }
    return printable;
}

ReportJson JsonOf(const TYShare& share) {
    const std::optional<TYInterval> interval = share.Interval();
    return {{"n", share.count},
            {"of", share.of},
            {"rate", JsonOf(share.Rate())},
            {"low", interval ? ReportJson(interval->low) : ReportJson()},
            {"high", interval ? ReportJson(interval->high) : ReportJson()}};
}

ReportJson JsonOf(const TYKeyFigures& figures) {
    return {{"playbacks", figures.playbacks},
            {"started", figures.started},
            {"failed", JsonOf(FailedOf(figures))},
            {"start_failures", JsonOf(figures.startFailures)},
            {"exits_before_start", JsonOf(figures.exitsBeforeStart)},
            {"playback_failures", JsonOf(figures.playbackFailures)},
            {"lost", JsonOf(figures.lost)},
            {"completed", JsonOf(figures.completed)},
            {"startup_ms", JsonOf(figures.startUp)},
            {"stall_ms", JsonOf(figures.stallLength)},
            {"seek_ms", JsonOf(figures.seekTime)},
            {"stalls", figures.stalls},
            {"stalled_ms", figures.stalled},
            {"stalled_ratio", JsonOf(figures.StalledRatio())},
            {"connection_stalled_ratio", JsonOf(figures.ConnectionStalledRatio())},
            {"stalls_per_hour", JsonOf(figures.StallsPerHour())},
            {"playing_ms", figures.playing},
            {"paused_ms", figures.paused},
            {"watched_media_ms", JsonOf(figures.watchedMedia)},
            {"average_kbps", JsonOf(figures.averageKbps)},
            {"switches", JsonOf(figures.switches)},
            {"frames_dropped", JsonOf(figures.framesDropped)},
            {"frames_rendered", JsonOf(figures.framesRendered)}};
}

ReportJson HistogramOf(std::span<const std::int64_t> times) {
    std::map<int, std::int64_t> classes;
    for (const std::int64_t time : times) {
        ++classes[ClassOf(time)];
    }
    ReportJson histogram = ReportJson::array();
    if (classes.empty()) {
        return histogram;
    }
    for (int number = classes.begin()->first; number <= classes.rbegin()->first; ++number) {
        histogram.push_back(
            {{"from", BoundOf(number)}, {"to", BoundOf(number + 1)}, {"n", classes[number]}});
    }
    return histogram;
}

// Everything that is not ASCII is escaped. The characters below only occur inside of strings.
std::string ForScriptElement(const ReportJson& json) {
    std::string escaped;
    for (const char character : json.dump(-1, ' ', true, ReportJson::error_handler_t::replace)) {
        switch (character) {
            case '<':
                escaped += "\\u003c";
                break;
            case '>':
                escaped += "\\u003e";
                break;
            case '&':
                escaped += "\\u0026";
                break;
            default:
                escaped += character;
        }
    }
    return escaped;
}
