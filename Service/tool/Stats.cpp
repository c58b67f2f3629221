// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

namespace {

struct Figure {
    const char* pName;
    const char* pSql;
};

// Every RENDER_START and every STOP has a derived record behind it; one without it tells of a batch
// that was lost on its way.
constexpr const char* kDerivedMissing = R"sql(
SELECT coalesce(sum(max(0, sources - derived)), 0) FROM (
    SELECT sum(event = 6) AS sources, sum(event = 21) AS derived
    FROM entries e JOIN contexts c ON c.id = e.context WHERE event IN (6, 21) GROUP BY c.playback))sql";

constexpr Figure kFigures[] = {
    {"records", "SELECT coalesce(sum(records), 0) FROM playbacks"},
    {"playbacks", "SELECT count(*) FROM playbacks WHERE playback_id <> ''"},
    {"senders", "SELECT count(*) FROM senders"},
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

}  // namespace

int PrintStats(const Context& context) {
    CTYDatabase database = OpenForReading(context);
    const auto pWriter = MakeWriter(context, {"application", "what", "value"});
    for (const Figure& figure : kFigures) {
        pWriter->Add({std::monostate(), figure.pName, database.Number(figure.pSql)});
    }
    pWriter->Add({std::monostate(), "store_bytes", StoreBytes(database)});
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
