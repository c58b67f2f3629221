// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Records.h"

#include "EventNames.h"
#include "TYRecordImage.h"
#include "TimeText.h"

#include <poll.h>

#include <array>
#include <cstring>

namespace {

constexpr int kFollowPeriodMs = 250;

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
                               "time_sec",   "time_nsec"};

// The newest are wanted when there are too many, yet printed in their order.
constexpr const char* kSelect = R"sql(
SELECT * FROM (
    SELECT id, arrival, bus_name, uid, pid, player_id, network_type, playback_id, service_version,
           service_id, event, param1, param2, duration, url, drm_type, content_type, channel_id,
           title, genre, custom_info, time_sec, time_nsec, padding, common
    FROM records
    WHERE id > ?1 AND (?2 IS NULL OR service_id = ?2) AND (?3 IS NULL OR playback_id = ?3)
      AND (?4 IS NULL OR event = ?4) AND arrival >= ?5 AND arrival < ?6
    ORDER BY id DESC LIMIT ?7)
ORDER BY id)sql";

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

int PrintRaw(const Context& context, CRecordQuery& query) {
    while (query.Step()) {
        const TYMediaData record = query.Image();
        const std::string_view image = TYImageOf(record);
        context.out.write(image.data(), static_cast<std::streamsize>(image.size()));
    }
    return EXIT_OK;
}

// Somebody who follows wants to see the end of what is piped into a pager too.
bool OutputIsOpen(const Context& context) {
    poll(nullptr, 0, kFollowPeriodMs);
    return context.out.good();
}

}  // namespace

Row RowOf(const CTYStatement& statement) {
    Row row;
    for (int column = 0; column < statement.Columns(); ++column) {
        row.push_back(CellOf(statement, column));
    }
    return row;
}

CRecordQuery::CRecordQuery(CTYDatabase& database, bool all)
    : m_bAll(all), m_Statement(database, kSelect) {}

void CRecordQuery::Begin(const Filter& filter, std::int64_t after) {
    // The filter's texts are not copied: they have to live until the last step.
    m_Statement.Begin(after, nullptr, nullptr, filter.code, filter.since.value_or(INT64_MIN),
                      filter.until.value_or(INT64_MAX), filter.limit);
    if (!filter.application.empty()) {
        m_Statement.Bind(2, filter.application);
    }
    if (!filter.playback.empty()) {
        m_Statement.Bind(3, filter.playback);
    }
}

std::vector<std::string> CRecordQuery::Columns(bool all) {
    if (all) {
        return {kNames.begin(), kNames.end()};
    }
    return {"id", "time", "application", "playback", "event", "param1", "param2", "network", "url"};
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
    const auto common = TYRecordFromCommonPart(s.Text(COMMON));
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
    CTYDatabase database = OpenForReading(context);
    CRecordQuery query(database, context.format != Format::TABLE);
    query.Begin(options.filter, 0);
    if (options.raw) {
        return PrintRaw(context, query);
    }
    const auto pWriter =
        MakeWriter(context, CRecordQuery::Columns(context.format != Format::TABLE));
    std::int64_t last = 0;
    Filter filter = options.filter;
    do {
        while (query.Step()) {
            last = query.Id();
            pWriter->Add(query.Get());
        }
        pWriter->Flush();
        filter.limit = -1;
        query.Begin(filter, last);
    } while (options.follow && OutputIsOpen(context));
    pWriter->End();
    return EXIT_OK;
}
