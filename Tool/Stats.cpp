// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "EventNames.h"
#include "TYEventCodes.h"
#include "TYLosses.h"

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
        {"watched_ms", "SELECT coalesce(sum(watched_ms), 0) FROM playbacks"},
        {"stalls", "SELECT coalesce(sum(stalls), 0) FROM playbacks"},
        {"stalled_ms", "SELECT coalesce(sum(stalled_ms), 0) FROM playbacks"},
        {"errors", "SELECT coalesce(sum(errors), 0) FROM playbacks"},
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

void AddApplications(CTYDatabase& database, IRowWriter& writer) {
    CTYStatement each(database,
                      "SELECT service_id, sum(playback_id <> ''), sum(records), sum(watched_ms), "
                      "sum(stalls), sum(errors) FROM playbacks GROUP BY service_id "
                      "ORDER BY sum(records) DESC");
    while (each.Step()) {
        int column = 0;
        for (const char* pWhat : {"playbacks", "records", "watched_ms", "stalls", "errors"}) {
            writer.Add({std::string(each.Text(0)), pWhat, each.Int(++column)});
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
    const auto pWriter = MakeWriter(context, {"application", "what", "value"});
    for (const Figure& figure : Figures()) {
        pWriter->Add({std::monostate(), figure.pName, database.Number(figure.sql.c_str())});
    }
    pWriter->Add({std::monostate(), "store_bytes", StoreBytes(database)});
    AddEvents(database, *pWriter);
    AddLosses(database, *pWriter);
    AddApplications(database, *pWriter);
    pWriter->End();
    return EXIT_OK;
}
