// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "EventNames.h"

namespace {

struct Figure {
    const char* pName;
    const char* pSql;
};

// The library puts a derived record right behind each PAUSE, STOP, RENDER_START and BUFFERING_END;
// where it is not the next one of its playback, it was lost on its way.
constexpr const char* kDerivedMissing = R"sql(
SELECT count(*) FROM (
    SELECT event, lead(event, 1, 0) OVER (PARTITION BY c.playback ORDER BY e.id) AS next
    FROM entries e JOIN contexts c ON c.id = e.context)
WHERE (event IN (2, 3) AND next <> 20) OR (event = 6 AND next <> 21)
   OR (event = 5 AND next NOT IN (22, 202)))sql";

constexpr Figure kFigures[] = {
    {"records", "SELECT coalesce(sum(records), 0) FROM playbacks"},
    {"records_made_by_library", "SELECT count(*) FROM entries WHERE event IN (20, 21, 22, 202)"},
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
    {"derived_records_missing", kDerivedMissing},
    {"playbacks_dropped", "SELECT coalesce(sum(playbacks), 0) FROM losses"},
    {"records_dropped", "SELECT coalesce(sum(records), 0) FROM losses"},
};

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

}  // namespace

int PrintStats(const Context& context) {
    CTYDatabase database = OpenForReading(context);
    const auto pWriter = MakeWriter(context, {"application", "what", "value"});
    for (const Figure& figure : kFigures) {
        pWriter->Add({std::monostate(), figure.pName, database.Number(figure.pSql)});
    }
    pWriter->Add({std::monostate(), "store_bytes", StoreBytes(database)});
    AddEvents(database, *pWriter);
    CTYStatement each(database,
                      "SELECT service_id, sum(playback_id <> ''), sum(records), sum(watched_ms), "
                      "sum(stalls), sum(errors) FROM playbacks GROUP BY service_id "
                      "ORDER BY sum(records) DESC");
    while (each.Step()) {
        int column = 0;
        for (const char* pWhat : {"playbacks", "records", "watched_ms", "stalls", "errors"}) {
            pWriter->Add({std::string(each.Text(0)), pWhat, each.Int(++column)});
        }
    }
    pWriter->End();
    return EXIT_OK;
}
