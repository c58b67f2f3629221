// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "EventNames.h"
#include "Records.h"
#include "TimeText.h"

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
// A player that has said nothing for this long will not end its playback any more: at the latest
// after three minutes it would have reported play time.
constexpr std::int64_t kSilence = 600 * kSecond;

constexpr const char* kSelect = R"sql(
SELECT p.playback_id, p.service_id, p.started_sec, p.first_arrival, p.last_arrival, p.ended_sec,
       p.records, p.watched_ms, p.startup_ms, p.stalls, p.stalled_ms, p.errors, c.title, c.url,
       p.id
FROM playbacks p LEFT JOIN contexts c ON c.id = p.context
WHERE p.playback_id <> '' AND (?1 IS NULL OR p.service_id = ?1)
  AND p.last_arrival >= ?2 AND p.first_arrival < ?3
ORDER BY p.last_arrival DESC LIMIT ?4)sql";

enum Column {
    PLAYBACK_ID,
    SERVICE_ID,
    STARTED,
    FIRST_ARRIVAL,
    LAST_ARRIVAL,
    ENDED,
    RECORDS,
    WATCHED,
    STARTUP,
    STALLS,
    STALLED,
    ERRORS,
    TITLE,
    URL,
};

std::string EndOf(const CTYStatement& s, std::int64_t now) {
    if (!s.IsNull(ENDED)) {
        return "stopped";
    }
    if (now - s.Int(LAST_ARRIVAL) < kSilence) {
        return "playing";
    }
    return s.Int(ERRORS) > 0 ? "failed" : "lost";
}

Cell LengthCell(const Context& context, const CTYStatement& s, int column) {
    if (s.IsNull(column)) {
        return std::monostate();
    }
    if (context.format != Format::TABLE) {
        return s.Int(column);
    }
    return FormatLength(s.Int(column));
}

Row PlaybackRow(const Context& context, const CTYStatement& s) {
    const std::int64_t start = s.IsNull(STARTED) ? s.Int(FIRST_ARRIVAL) : s.Int(STARTED) * kSecond;
    return {FormatTime(start),
            std::string(s.Text(SERVICE_ID)),
            std::string(s.Text(s.Text(TITLE).empty() ? URL : TITLE)),
            LengthCell(context, s, WATCHED),
            LengthCell(context, s, STARTUP),
            s.Int(STALLS),
            LengthCell(context, s, STALLED),
            s.Int(ERRORS),
            EndOf(s, context.now),
            s.Int(RECORDS),
            std::string(s.Text(PLAYBACK_ID))};
}

// What a line of the timeline says of its parameters.
std::string Describe(int event, std::int64_t param1, std::int64_t param2) {
    const std::string position =
        param1 == -1 ? "before any position" : "at " + FormatLength(param1);
    switch (event) {
        case 1:
            return "from " + std::to_string(param1);
        case 2:
        case 3:
        case 8:
            return position;
        case 4:
            return param2 == 0 ? position : position + ", signal " + std::to_string(param2);
        case 9:
            return position + " to " + FormatLength(param2);
        case 20:
            return position + ", played " + FormatLength(param2);
        case 21:
        case 22:
            return "took " + FormatLength(param1);
        case 204:
            return position + ", was at " + FormatLength(param2);
        default:
            return param1 == 0 && param2 == 0
                       ? ""
                       : std::to_string(param1) + ", " + std::to_string(param2);
    }
}

void PrintHead(const Context& context, const CTYStatement& s) {
    std::ostream& out = context.out;
    out << "playback     " << s.Text(PLAYBACK_ID) << "\n"
        << "application  " << s.Text(SERVICE_ID) << "\n"
        << "title        " << s.Text(TITLE) << "\n"
        << "url          " << s.Text(URL) << "\n"
        << "end          " << EndOf(s, context.now) << "\n"
        << "watched      " << FormatLength(s.Int(WATCHED)) << "\n";
    if (!s.IsNull(STARTUP)) {
        out << "start-up     " << FormatLength(s.Int(STARTUP)) << "\n";
    }
    out << "stalls       " << s.Int(STALLS) << ", " << FormatLength(s.Int(STALLED)) << "\n"
        << "errors       " << s.Int(ERRORS) << "\n\n";
}

void PrintTimeline(const Context& context, CTYDatabase& database, std::int64_t playback) {
    CTYStatement s(database,
                   "SELECT event, param1, param2, time_sec, time_nsec FROM records "
                   "WHERE playback = ? ORDER BY id");
    const auto pWriter = MakeWriter(context, {"time", "event", "what"});
    std::optional<std::int64_t> first;
    s.Begin(playback);
    while (s.Step()) {
        const auto event = static_cast<int>(s.Int(0));
        const std::int64_t time = s.Int(3) * kSecond + s.Int(4);
        first = first.value_or(time);
        pWriter->Add({"+" + FormatLength((time - *first) / 1'000'000), EventName(event),
                      Describe(event, s.Int(1), s.Int(2))});
    }
    pWriter->End();
}

}  // namespace

int PrintPlaybacks(const Context& context, const Filter& filter) {
    CTYDatabase database = OpenForReading(context);
    CTYStatement statement(database, kSelect);
    statement.Begin(nullptr, filter.since.value_or(INT64_MIN), filter.until.value_or(INT64_MAX),
                    filter.limit);
    if (!filter.application.empty()) {
        statement.Bind(1, filter.application);
    }
    const auto pWriter =
        MakeWriter(context, {"start", "application", "title", "watched", "startup", "stalls",
                             "stalled", "errors", "end", "records", "playback"});
    while (statement.Step()) {
        pWriter->Add(PlaybackRow(context, statement));
    }
    pWriter->End();
    return EXIT_OK;
}

int ShowPlayback(const Context& context, const std::string& playback) {
    CTYDatabase database = OpenForReading(context);
    std::string sql = kSelect;
    sql.replace(sql.find("p.playback_id <> ''"), 19, "p.playback_id = ?5");
    CTYStatement statement(database, sql);
    statement.Begin(nullptr, INT64_MIN, INT64_MAX, -1, playback);
    bool found = false;
    while (statement.Step()) {
        if (context.format == Format::TABLE) {
            PrintHead(context, statement);
        }
        PrintTimeline(context, database, statement.Int(URL + 1));
        found = true;
    }
    if (!found) {
        context.errors << "tallyra: there is no playback " << playback << "\n";
    }
    return found ? EXIT_OK : EXIT_NOT_FOUND;
}
