// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPostgresReader.h"

#include "TYPlaybackRow.h"
#include "TYPostgresSchema.h"

#include <exception>
#include <string_view>

namespace {

using Visitor = std::function<void(const TYAnalyzedPlayback&)>;

constexpr const char* kFetch = "FETCH 500 FROM selected";

// The phases are for people. They come from the timeline.
bool IsRead(const std::string& column, CTYPostgresReader::Detail detail) {
    return !column.starts_with("phase_") &&
           (column != "timeline" || detail == CTYPostgresReader::Detail::TIMELINES);
}

std::string SqlToSelect(pqxx::transaction_base& transaction, const TYPlaybackSelection& selection,
                        CTYPostgresReader::Detail detail) {
    std::string sql = "DECLARE selected NO SCROLL CURSOR FOR SELECT ";
    for (const std::string name : CTYPlaybackRow::kNames) {
        sql += (IsRead(name, detail) ? name : "NULL") + ", ";
    }
    sql.resize(sql.size() - 2);
    sql += " FROM playbacks WHERE begin_ns >= '" + std::to_string(selection.since) +
           "' AND begin_ns < '" + std::to_string(selection.until) + "'";
    if (!selection.application.empty()) {
        sql += " AND application = " + transaction.quote(selection.application);
    }
    return sql;
}

void Visit(const pqxx::row& row, std::int64_t now, CTYPostgresReader::Detail detail,
           const Visitor& visit) {
    const TYStoredPlayback playback = CTYPlaybackRow::PlaybackIn(row);
    TYPlaybackFigures figures = CTYPlaybackRow::FiguresIn(row);
    if (figures.end == TYPlaybackEnd::LOST && IsRecent(playback.lastArrival, now)) {
        figures.end = TYPlaybackEnd::PLAYING;
    }
    std::vector<TYTimelineRecord> records;
    TYTimeline timeline;
    if (detail == CTYPostgresReader::Detail::TIMELINES) {
        records = CTYPlaybackRow::LogIn(row).Records();
        timeline = AnalyzePlayback(records);
    }
    visit({playback, records, timeline, figures});
}

}  // namespace

void CTYPostgresReader::ScanPlaybacks(const TYPlaybackSelection& selection, std::int64_t now,
                                      Detail detail, const Visitor& visit) {
    m_Connection.Run([&](pqxx::connection& connection) {
        pqxx::transaction<pqxx::repeatable_read, pqxx::read_only> snapshot(connection);
        CheckPostgresSchema(snapshot);
        snapshot.exec0(SqlToSelect(snapshot, selection, detail));
        for (pqxx::result rows = snapshot.exec(kFetch); !rows.empty();
             rows = snapshot.exec(kFetch)) {
            for (const pqxx::row& row : rows) {
                Visit(row, now, detail, visit);
            }
        }
    });
}
