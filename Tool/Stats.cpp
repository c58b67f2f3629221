// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "EventNames.h"
#include "Progress.h"
#include "TYEventCodes.h"
#include "TYLosses.h"
#include "TYPlaybackScan.h"

#include <map>
#include <numeric>
#include <sstream>

namespace {

struct Figure {
    const char* pName;
    std::string sql;
};

// @return an SQL condition that is true for these codes
std::string IsOneOf(std::initializer_list<int> codes) {
    std::string list;
    for (const int code : codes) {
        list += (list.empty() ? "(" : ", ") + std::to_string(code);
    }
    return " IN " + list + ")";
}

// The library sends a derived record directly after each PAUSE, STOP, RENDER_START and
// BUFFERING_END. If the next record of the playback is another one, the derived record was lost.
std::string DerivedMissing() {
    return "SELECT count(*) FROM ("
           "SELECT event, lead(event, 1, 0) OVER (PARTITION BY c.playback ORDER BY e.id) AS next "
           "FROM entries e JOIN contexts c ON c.id = e.context) "
           "WHERE (event" +
           IsOneOf({TY_EVENT_STOP, TY_EVENT_PAUSE}) + " AND NOT next" +
           IsOneOf({TY_EVENT_PLAYING_TIME}) + ") OR (event" + IsOneOf({TY_EVENT_RENDER_START}) +
           " AND NOT next" + IsOneOf({TY_EVENT_START_UP_TIME}) + ") OR (event" +
           IsOneOf({TY_EVENT_BUFFERING_END}) + " AND NOT next" +
           IsOneOf({TY_EVENT_BUFFERING_TIME, TY_ERROR_BUFFERING_MISMATCH}) + ")";
}

std::string MadeByLibrary() {
    return "SELECT count(*) FROM entries WHERE event" +
           IsOneOf({TY_EVENT_PLAYING_TIME, TY_EVENT_START_UP_TIME, TY_EVENT_BUFFERING_TIME,
                    TY_ERROR_BUFFERING_MISMATCH});
}

// What the service dropped to keep its limits.
std::string Dropped(const std::string& column) {
    return "SELECT coalesce(sum(" + column + "), 0) FROM losses WHERE reason IN ('age', 'room')";
}

std::vector<Figure> Figures() {
    return {
        {"records", "SELECT coalesce(sum(records), 0) FROM playbacks"},
        {"records_made_by_library", MadeByLibrary()},
        {"playbacks", "SELECT count(*) FROM playbacks WHERE playback_id <> ''"},
        {"senders", "SELECT count(*) FROM senders"},
        {"batches", "SELECT coalesce(sum(batches), 0) FROM senders"},
        {"errors", "SELECT count(*) FROM entries WHERE " + SqlForErrors("event")},
        {"playbacks_without_start",
         "SELECT count(*) FROM playbacks WHERE playback_id <> '' AND started_sec IS NULL"},
        {"playbacks_without_end",
         "SELECT count(*) FROM playbacks WHERE playback_id <> '' AND ended_sec IS NULL"},
        {"derived_records_missing", DerivedMissing()},
        {"playbacks_dropped", Dropped("playbacks")},
        {"records_dropped", Dropped("records")},
        {"urls_cut", "SELECT count(*) FROM contexts WHERE url_cut > 0"},
    };
}

/// What the analysis of the playbacks says, added up.
struct Playing {
    std::int64_t watched = 0;
    std::int64_t stalls = 0;
    std::int64_t stalled = 0;

    void Add(std::int64_t media, std::int64_t count, std::int64_t length) {
        watched += media;
        stalls += count;
        stalled += length;
    }
    void Print(const Cell& application, IRowWriter& writer) const {
        writer.Add({application, "watched_media_ms", watched});
        writer.Add({application, "stalls", stalls});
        writer.Add({application, "stalled_ms", stalled});
    }
};

using Applications = std::map<std::string, Playing, std::less<>>;

Applications PlayingByApplication(CTYDatabase& database, std::int64_t now) {
    Applications applications;
    ScanPlaybacks(database, {}, now, [&](const TYAnalyzedPlayback& analyzed) {
        const TYPlaybackFigures& figures = analyzed.figures;
        applications[analyzed.playback.application].Add(
            figures.watchedMedia, std::ssize(figures.stalls),
            std::reduce(figures.stalls.begin(), figures.stalls.end(), std::int64_t{0}));
    });
    return applications;
}

void AddPlaying(const Applications& applications, IRowWriter& writer) {
    Playing all;
    for (const auto& [application, playing] : applications) {
        all.Add(playing.watched, playing.stalls, playing.stalled);
    }
    all.Print(std::monostate(), writer);
}

std::int64_t StoreBytes(CTYDatabase& database) {
    return database.Number("PRAGMA page_size") * database.Number("PRAGMA page_count");
}

void AddEvents(CTYDatabase& database, IRowWriter& writer) {
    CTYStatement each(database, "SELECT event, count(*) FROM entries GROUP BY event");
    while (each.Step()) {
        const std::string event = EventName(static_cast<int>(each.Int(0)));
        writer.Add({std::monostate(), "records of " + event, each.Int(1)});
    }
}

// All reasons, also those for which nothing was lost, so that a script finds its figure.
void AddLosses(CTYDatabase& database, IRowWriter& writer) {
    CTYStatement sum(database, "SELECT coalesce(sum(records), 0) FROM losses WHERE reason = ?");
    for (int i = 0; i < static_cast<int>(TYLossReason::COUNT); ++i) {
        const std::string reason = TextOf(static_cast<TYLossReason>(i));
        sum.Begin(reason);
        sum.Step();
        writer.Add({std::monostate(), "records_lost_" + reason, sum.Int(0)});
    }
}

// The totals of playbacks also count the library's remarks. In this order: SQLite would otherwise
// make an index of all entries.
std::map<std::string, std::int64_t, std::less<>> ErrorsByApplication(CTYDatabase& database) {
    CTYStatement each(database,
                      "SELECT p.service_id, count(*) FROM entries e "
                      "CROSS JOIN contexts c ON c.id = e.context "
                      "CROSS JOIN playbacks p ON p.id = c.playback WHERE " +
                          SqlForErrors("e.event") + " GROUP BY p.service_id");
    std::map<std::string, std::int64_t, std::less<>> errors;
    while (each.Step()) {
        errors.emplace(each.Text(0), each.Int(1));
    }
    return errors;
}

void AddApplications(CTYDatabase& database, const Applications& applications, IRowWriter& writer) {
    const auto errors = ErrorsByApplication(database);
    CTYStatement each(database,
                      "SELECT service_id, sum(playback_id <> ''), sum(records) "
                      "FROM playbacks GROUP BY service_id ORDER BY sum(records) DESC");
    while (each.Step()) {
        const std::string application(each.Text(0));
        writer.Add({application, "playbacks", each.Int(1)});
        writer.Add({application, "records", each.Int(2)});
        const auto found = errors.find(application);
        writer.Add({application, "errors", found == errors.end() ? 0 : found->second});
        if (const auto playing = applications.find(application); playing != applications.end()) {
            playing->second.Print(application, writer);
        }
    }
    CTYStatement losses(database,
                        "SELECT application, reason, sum(records) FROM losses "
                        "WHERE application <> '' GROUP BY application, reason");
    while (losses.Step()) {
        writer.Add({std::string(losses.Text(0)), "records_lost_" + std::string(losses.Text(1)),
                    losses.Int(2)});
    }
}

}  // namespace

int PrintStats(const Context& context) {
    CTYDatabase database = OpenForReading(context);
    // Held back until the progress is erased.
    std::ostringstream text;
    CProgress progress(context.errors, "reading the store");
    const auto pWriter = MakeRowWriter(text, {"application", "what", "value"}, StyleOf(context));
    for (const Figure& figure : Figures()) {
        pWriter->Add({std::monostate(), figure.pName, database.Number(figure.sql.c_str())});
    }
    const Applications applications = PlayingByApplication(database, context.now);
    AddPlaying(applications, *pWriter);
    pWriter->Add({std::monostate(), "store_bytes", StoreBytes(database)});
    AddEvents(database, *pWriter);
    AddLosses(database, *pWriter);
    AddApplications(database, applications, *pWriter);
    pWriter->End();
    progress.Erase();
    context.out << text.str();
    return EXIT_OK;
}
