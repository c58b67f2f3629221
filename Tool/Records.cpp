// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Records.h"

#include "EventNames.h"
#include "TYRecordImage.h"
#include "TimeText.h"

#include <array>
#include <cstring>
#include <utility>

namespace {

enum Column {
    ID,
    ARRIVAL,
    BUS_NAME,
    UID,
    PID,
    PLAYER_ID,
    NETWORK_TYPE,
    PLAYBACK_ID,
    SERVICE_VERSION,
    SERVICE_ID,
    EVENT,
    PARAM1,
    PARAM2,
    DURATION,
    URL,
    DRM_TYPE,
    CONTENT_TYPE,
    CHANNEL_ID,
    TITLE,
    GENRE,
    CUSTOM_INFO,
    TIME_SEC,
    TIME_NSEC,
    URL_CUT,
    PADDING,
    COMMON,
};

constexpr std::array kNames = {"id",         "arrival",      "bus_name",
                               "uid",        "pid",          "player_id",
                               "network",    "playback_id",  "service_version",
                               "service_id", "event",        "param1",
                               "param2",     "duration",     "url",
                               "drm_type",   "content_type", "channel_id",
                               "title",      "genre",        "custom_info",
                               "time_sec",   "time_nsec",    "url_cut"};

constexpr const char* kSelect = R"sql(
SELECT id, arrival, bus_name, uid, pid, player_id, network_type, playback_id, service_version,
       service_id, event, param1, param2, duration, url, drm_type, content_type, channel_id,
       title, genre, custom_info, time_sec, time_nsec, url_cut, padding,
       common
FROM )sql";

// Builds only the conditions in use: an unused one, such as "?1 IS NULL OR ...", would keep SQLite
// from using an index.
std::string SqlFor(const Filter& filter) {
    std::string sql = kSelect;
    // The table entries has no index, so playbacks and times are found through the runs.
    sql += filter.playback.empty() ? "records" : "records_by_playback";
    sql += filter.since
               ? " WHERE id >= max(?1 + 1, (SELECT min(first) FROM runs WHERE arrival >= ?5)) "
                 "AND arrival >= ?5"
               : " WHERE id > ?1";
    sql += filter.application.empty() ? "" : " AND service_id = ?2";
    sql += filter.playback.empty() ? "" : " AND playback_id = ?3";
    sql += filter.code ? " AND event = ?4" : "";
    sql += filter.until
               ? " AND arrival < ?6 AND id <= (SELECT max(last) FROM runs WHERE arrival < ?6)"
               : "";
    if (filter.limit < 0) {
        return sql + " ORDER BY id";
    }
    // The newest records, in ascending order.
    return "SELECT * FROM (" + sql + " ORDER BY id DESC LIMIT ?7) ORDER BY id";
}

std::int64_t TimeOf(const CTYStatement& statement) {
    return statement.Int(TIME_SEC) * 1'000'000'000 + statement.Int(TIME_NSEC);
}

Cell CellOf(const CTYStatement& statement, int column) {
    switch (statement.Type(column)) {
        case SQLITE_NULL:
            return std::monostate();
        case SQLITE_INTEGER:
            return statement.Int(column);
        default:
            return std::string(statement.Text(column));
    }
}

int PrintRaw(const Context& context, CTYDatabase& database, const Filter& filter) {
    if (context.sink != Sink::PROGRAM) {
        context.errors << "tallyra: not writing raw images to a terminal\n";
        return EXIT_USAGE;
    }
    CRecordQuery query(database, filter, true);
    query.Begin(0);
    while (query.Step()) {
        const TYMediaData record = query.Image();
        const std::string_view image = ImageOf(record);
        context.out.write(image.data(), static_cast<std::streamsize>(image.size()));
    }
    return EXIT_OK;
}

}  // namespace

CRecordQuery::CRecordQuery(CTYDatabase& database, Filter filter, bool all)
    : m_Filter(std::move(filter)), m_bAll(all), m_Statement(database, SqlFor(m_Filter)) {}

void CRecordQuery::Begin(std::int64_t after) {
    m_Statement.Begin(after);
    const auto bind = [this](int index, bool wanted, const auto& value) {
        if (wanted) {
            m_Statement.Bind(index, value);
        }
    };
    // Bind does not copy: the texts of m_Filter outlive the statement's steps.
    bind(2, !m_Filter.application.empty(), m_Filter.application);
    bind(3, !m_Filter.playback.empty(), m_Filter.playback);
    bind(4, m_Filter.code.has_value(), m_Filter.code);
    bind(5, m_Filter.since.has_value(), m_Filter.since);
    bind(6, m_Filter.until.has_value(), m_Filter.until);
    bind(7, m_Filter.limit >= 0, m_Filter.limit);
}

std::vector<std::string> CRecordQuery::Columns(bool all) {
    if (all) {
        return {kNames.begin(), kNames.end()};
    }
    return {"id",    "time",   "uid",    "application", "playback",
            "event", "param1", "param2", "network",     "url"};
}

Row CRecordQuery::Get() const {
    const CTYStatement& s = m_Statement;
    if (m_bAll) {
        Row row;
        for (std::size_t column = 0; column < kNames.size(); ++column) {
            row.push_back(CellOf(s, static_cast<int>(column)));
        }
        return row;
    }
    return {s.Int(ID),
            FormatTime(TimeOf(s)),
            CellOf(s, UID),
            std::string(s.Text(SERVICE_ID)),
            std::string(s.Text(PLAYBACK_ID)),
            EventName(static_cast<int>(s.Int(EVENT))),
            s.Int(PARAM1),
            s.Int(PARAM2),
            NetworkName(static_cast<int>(s.Int(NETWORK_TYPE))),
            std::string(s.Text(URL))};
}

TYMediaData CRecordQuery::Image() const {
    const CTYStatement& s = m_Statement;
    const auto common = RecordFromCommonPart(s.Text(COMMON));
    if (!common) {
        throw CTYDatabaseError(SQLITE_CORRUPT, "record " + std::to_string(Id()) + " is damaged");
    }
    TYMediaData record = *common;
    record.event = static_cast<std::uint8_t>(s.Int(EVENT));
    record.param1 = static_cast<std::int32_t>(s.Int(PARAM1));
    record.param2 = static_cast<std::int32_t>(s.Int(PARAM2));
    record.time = {static_cast<std::int32_t>(s.Int(TIME_SEC)),
                   static_cast<std::int32_t>(s.Int(TIME_NSEC))};
    const auto padding = static_cast<std::uint32_t>(s.Int(PADDING));
    std::memcpy(record.padding2, &padding, sizeof(record.padding2));
    return record;
}

int PrintRecords(const Context& context, const RecordsOptions& options) {
    if (options.follow) {
        FollowRecords(context, options.filter);
        return EXIT_OK;
    }
    const bool all = context.format != Format::TABLE;
    CTYDatabase database = OpenForReading(context);
    if (options.raw) {
        return PrintRaw(context, database, options.filter);
    }
    const auto pWriter = MakeWriter(context, CRecordQuery::Columns(all));
    CRecordQuery query(database, options.filter, all);
    query.Begin(0);
    while (query.Step()) {
        pWriter->Add(query.Get());
    }
    pWriter->End();
    return EXIT_OK;
}
