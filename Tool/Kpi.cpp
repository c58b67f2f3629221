// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Kpi.h"

#include "FigureJson.h"
#include "JsonText.h"
#include "PlaybackSource.h"
#include "TimeText.h"

#include <array>
#include <cstdio>

// The names and the order of the figures are those of JSON. CSV has the same figures in columns:
// members of an object have the object's name in front, bounds of an interval "_low" and "_high"
// behind. Tables have a selection.

namespace {

using Json = nlohmann::ordered_json;
using Groups = std::vector<std::pair<std::string, TYKeyFigures>>;

constexpr double kPercent = 100;

void AddRate(const std::string& name, const TYShare& share, Json& object) {
    const auto interval = share.Interval();
    object[name + "_rate"] = JsonOf(share.Rate());
    object[name + "_rate_ci"] = interval ? Json::array({interval->low, interval->high}) : Json();
    object[name + "_rate_n"] = share.of;
}

void AddShare(const std::string& name, const TYShare& share, Json& object) {
    object[name] = share.count;
    AddRate(name, share, object);
}

void AddEnds(const TYKeyFigures& figures, Json& object) {
    object["playbacks"] = figures.playbacks;
    object["started"] = figures.started;
    AddShare("start_failures", figures.startFailures, object);
    AddShare("exits_before_start", figures.exitsBeforeStart, object);
    AddShare("playback_failures", figures.playbackFailures, object);
    AddShare("lost", figures.lost, object);
}

void AddTimes(const TYKeyFigures& figures, Json& object) {
    object["startup_ms"] = JsonOf(figures.startUp);
    object["stall_ms"] = JsonOf(figures.stallLength);
    object["seek_ms"] = JsonOf(figures.seekTime);
    object["stalls"] = figures.stalls;
    object["stalled_ms"] = figures.stalled;
    object["seek_stalls"] = figures.seekStalls;
    object["seek_stalled_ms"] = figures.seekStalled;
    object["switch_stalls"] = figures.switchStalls;
    object["switch_stalled_ms"] = figures.switchStalled;
    object["playing_ms"] = figures.playing;
    object["paused_ms"] = figures.paused;
    object["stalled_ratio"] = JsonOf(figures.StalledRatio());
    object["connection_stalled_ratio"] = JsonOf(figures.ConnectionStalledRatio());
    object["stalls_per_hour"] = JsonOf(figures.StallsPerHour());
    object["stalls_per_playback"] = JsonOf(figures.stallsEach);
}

void AddMedia(const TYKeyFigures& figures, Json& object) {
    object["watched_media_ms"] = JsonOf(figures.watchedMedia);
    object["completed"] = figures.completed.of > 0 ? Json(figures.completed.count) : Json();
    AddRate("completed", figures.completed, object);
    object["average_kbps"] = JsonOf(figures.averageKbps);
    object["switches"] = JsonOf(figures.switches);
    object["frames_dropped"] = JsonOf(figures.framesDropped);
    object["frames_rendered"] = JsonOf(figures.framesRendered);
}

Json JsonOf(const std::string& group, const TYKeyFigures& figures) {
    Json object{{"group", group}};
    AddEnds(figures, object);
    AddTimes(figures, object);
    AddMedia(figures, object);
    return object;
}

void PrintJson(const Context& context, const Groups& groups) {
    std::string separator = "[\n";
    for (const auto& [name, figures] : groups) {
        context.out << separator << JsonText(JsonOf(name, figures));
        separator = ",\n";
    }
    context.out << (groups.empty() ? "[]\n" : "\n]\n");
}

void PrintJsonLines(const Context& context, const Groups& groups) {
    for (const auto& [name, figures] : groups) {
        context.out << JsonText(JsonOf(name, figures)) << '\n';
    }
    context.out << JsonText({{"end", true}, {"rows", groups.size()}}) << '\n';
}

// The figures as columns. Intervals have two columns also where there is none.
std::vector<std::pair<std::string, Json>> ColumnsOf(const Json& object) {
    std::vector<std::pair<std::string, Json>> columns;
    for (const auto& [name, value] : object.items()) {
        if (value.is_object()) {
            const std::string prefix = name + '_';
            for (const auto& [member, inner] : value.items()) {
                columns.emplace_back(prefix + member, inner);
            }
        } else if (name.ends_with("_ci")) {
            columns.emplace_back(name + "_low", value.is_null() ? Json() : value.at(0));
            columns.emplace_back(name + "_high", value.is_null() ? Json() : value.at(1));
        } else {
            columns.emplace_back(name, value);
        }
    }
    return columns;
}

Cell CellOf(const Json& value) {
    if (value.is_null()) {
        return std::monostate();
    }
    if (value.is_number_integer()) {
        return value.get<std::int64_t>();
    }
    return value.is_string() ? value.get<std::string>() : value.dump();
}

void PrintCsv(const Context& context, const Groups& groups) {
    std::vector<std::string> names;
    for (const auto& column : ColumnsOf(JsonOf("", {}))) {
        names.push_back(column.first);
    }
    const auto pWriter = MakeWriter(context, names);
    for (const auto& [name, figures] : groups) {
        Row row;
        for (const auto& column : ColumnsOf(JsonOf(name, figures))) {
            row.push_back(CellOf(column.second));
        }
        pWriter->Add(row);
    }
    pWriter->End();
}

std::string Decimal(double value, int decimals) {
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

// Rates of failures are small: below 1 % they have two decimals.
std::string RateText(const TYShare& share) {
    const auto rate = share.Rate();
    const auto interval = share.Interval();
    if (!rate || !interval) {
        return "";
    }
    const int decimals = interval->high * kPercent < 1 ? 2 : 1;
    return Decimal(*rate * kPercent, decimals) + " (" +
           Decimal(interval->low * kPercent, decimals) + "–" +
           Decimal(interval->high * kPercent, decimals) + ")";
}

std::string LengthText(const std::optional<std::int64_t>& time) {
    return time ? FormatLength(*time) : "";
}

std::string RatioText(const std::optional<double>& ratio) {
    return ratio ? Decimal(*ratio * kPercent, 2) : "";
}

Row RowOf(const std::string& group, const TYKeyFigures& figures) {
    const auto perHour = figures.StallsPerHour();
    return {group,
            figures.playbacks,
            RateText(figures.lost),
            figures.startFailures.of,
            RateText(figures.startFailures),
            RateText(figures.exitsBeforeStart),
            figures.playbackFailures.of,
            RateText(figures.playbackFailures),
            LengthText(figures.startUp.p50),
            LengthText(figures.startUp.p95),
            RatioText(figures.ConnectionStalledRatio()),
            perHour ? Decimal(*perHour, 1) : ""};
}

void PrintTable(const Context& context, const Groups& groups) {
    // Each number of playbacks is followed by the rates of which it is the n.
    const auto pWriter =
        MakeWriter(context, {"group", "playbacks", "lost %", "tried", "start failures %", "exits %",
                             "started", "failures %", "start-up", "p95", "stalled %", "stalls/h"});
    for (const auto& [name, figures] : groups) {
        if (figures.playbacks > 0) {
            pWriter->Add(RowOf(name, figures));
        }
    }
    EndRows(context, *pWriter, "no playbacks match");
}

}  // namespace

int PrintKpi(const Context& context, const KpiOptions& options) {
    CGroupedFigures grouped(options.by, context.zone);
    VisitPlaybacks(context, options.selection, PlaybackDetail::FIGURES,
                   [&grouped](const TYAnalyzedPlayback& each) { grouped.Add(each); });
    const Groups groups = grouped.Get();
    switch (context.format) {
        case Format::TABLE:
            PrintTable(context, groups);
            break;
        case Format::JSON:
            PrintJson(context, groups);
            break;
        case Format::JSONL:
            PrintJsonLines(context, groups);
            break;
        case Format::CSV:
            PrintCsv(context, groups);
            break;
    }
    return EXIT_OK;
}
