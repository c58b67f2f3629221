// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Records.h"

#include "EventNames.h"
#include "PlaybackSearch.h"
#include "RecordText.h"
#include "TYEventCodes.h"
#include "TYRecordImage.h"
#include "TypeNames.h"

#include <algorithm>
#include <cstring>
#include <iterator>
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

constexpr const char* kSelect = R"sql(
SELECT id, arrival, bus_name, uid, pid, player_id, network_type, playback_id, service_version,
       service_id, event, param1, param2, duration, url, drm_type, content_type, channel_id,
       title, genre, custom_info, time_sec, time_nsec, url_cut, padding,
       common
FROM )sql";

constexpr const char* kTime = "(time_sec * 1000000000 + time_nsec)";

// The columns that rows can be sorted by, and their expressions.
/// A column that rows can be sorted by.
struct SortColumn {
    const char* pName;
    const char* pExpression;
};

constexpr SortColumn kSortable[] = {
    {"id", "id"},
    {"arrival", "arrival"},
    {"time", kTime},
    {"uid", "uid"},
    {"application", "service_id"},
    {"version", "service_version"},
    {"playback", "playback_id"},
    {"player", "player_id"},
    {"network", "network_type"},
    {"event", "event"},
    {"code", "event"},
    {"param1", "param1"},
    {"param2", "param2"},
    {"title", "title"},
    {"url", "url"},
};

// The numbers of the parameters in the conditions.
enum Parameter {
    AFTER = 1,
    APPLICATION,
    PLAYBACK,
    PART_OF_TITLE,
    SINCE,
    UNTIL,
    LIMIT,
    USER,
    NETWORK,
    NUMBER,
};

bool SelectsByPlayback(const Filter& filter) {
    return !filter.playback.empty() || filter.number;
}

// The table entries has no index, so playbacks and times are found through the runs.
std::string SqlForTimes(const Filter& filter) {
    if (filter.byRecordTime) {
        return " WHERE id > ?1" + (filter.since ? std::string(" AND ") + kTime + " >= ?5" : "") +
               (filter.until ? std::string(" AND ") + kTime + " < ?6" : "");
    }
    std::string sql =
        filter.since
            ? " WHERE id >= max(?1 + 1, (SELECT min(first) FROM runs WHERE arrival >= ?5)) "
              "AND arrival >= ?5"
            : " WHERE id > ?1";
    sql += filter.until
               ? " AND arrival < ?6 AND id <= (SELECT max(last) FROM runs WHERE arrival < ?6)"
               : "";
    return sql;
}

std::string SqlForCodes(const Filter& filter) {
    if (filter.codes.empty()) {
        return filter.errors ? " AND " + SqlForErrors("event") : "";
    }
    std::string list;
    for (const int code : filter.codes) {
        list += (list.empty() ? "" : ", ") + std::to_string(code);
    }
    const std::string isOne = "event IN (" + list + ")";
    return filter.errors ? " AND (" + isOne + " OR " + SqlForErrors("event") + ")"
                         : " AND " + isOne;
}

// Builds only the conditions in use: an unused one, such as "?1 IS NULL OR ...", would keep SQLite
// from using an index.
std::string SqlForRows(const Filter& filter) {
    std::string sql = SelectsByPlayback(filter) ? "records_by_playback" : "records";
    sql += SqlForTimes(filter) + SqlForCodes(filter);
    sql += filter.application.empty() ? "" : " AND service_id = ?2";
    sql += filter.playback.empty() ? "" : " AND playback_id = ?3";
    sql += filter.title.empty() ? "" : " AND contains_text(title, ?4)";
    sql += filter.uid ? " AND coalesce(uid, -1) = ?8" : "";
    sql += filter.network ? " AND network_type = ?9" : "";
    sql += filter.number ? " AND playback = ?10" : "";
    return sql;
}

// Rows without a value come last in both directions.
std::string SqlForOrder(const Order& order) {
    const std::string direction = order.reverse ? " DESC" : "";
    const auto* pColumn =
        std::find_if(std::begin(kSortable), std::end(kSortable),
                     [&order](const SortColumn& column) { return column.pName == order.column; });
    if (order.column == "id" || pColumn == std::end(kSortable)) {
        return " ORDER BY id" + direction;
    }
    const std::string by = pColumn->pExpression;
    return " ORDER BY " + by + " IS NULL, " + by + direction + ", id" + direction;
}

std::string SqlFor(const Filter& filter, const Order& order) {
    const std::string rows = SqlForRows(filter);
    const std::string ordered = SqlForOrder(order);
    if (filter.limit < 0) {
        return kSelect + rows + ordered;
    }
    if (order.column.empty()) {
        const std::string newest = kSelect + rows + " ORDER BY id DESC LIMIT ?7";
        return order.reverse ? newest : "SELECT * FROM (" + newest + ") ORDER BY id";
    }
    // Sorts identifiers only: whole rows are large.
    return std::string(kSelect) + "records WHERE id IN (SELECT id FROM " + rows + ordered +
           " LIMIT ?7)" + ordered;
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
    if (context.sink != Sink::PROGRAM) {
        context.errors << "tallyra: not writing raw images to a terminal\n";
        return EXIT_USAGE;
    }
    query.Begin(0);
    while (query.Step()) {
        const TYMediaData record = query.Image();
        const std::string_view image = ImageOf(record);
        context.out.write(image.data(), static_cast<std::streamsize>(image.size()));
    }
    return EXIT_OK;
}

}  // namespace

CRecordQuery::CRecordQuery(CTYDatabase& database, Filter filter, bool all, const Order& order)
    : m_Filter(std::move(filter)), m_bAll(all), m_Statement(database, SqlFor(m_Filter, order)) {}

void CRecordQuery::Begin(std::int64_t after) {
    m_Statement.Begin(after);
    const auto bind = [this](int index, bool wanted, const auto& value) {
        if (wanted) {
            m_Statement.Bind(index, value);
        }
    };
    // Bind does not copy: the texts of m_Filter outlive the statement's steps.
    bind(APPLICATION, !m_Filter.application.empty(), m_Filter.application);
    bind(PLAYBACK, !m_Filter.playback.empty(), m_Filter.playback);
    bind(PART_OF_TITLE, !m_Filter.title.empty(), m_Filter.title);
    bind(SINCE, m_Filter.since.has_value(), m_Filter.since);
    bind(UNTIL, m_Filter.until.has_value(), m_Filter.until);
    bind(LIMIT, m_Filter.limit >= 0, m_Filter.limit);
    bind(USER, m_Filter.uid.has_value(), m_Filter.uid);
    // The store has the byte of the record.
    bind(NETWORK, m_Filter.network.has_value(), m_Filter.network.value_or(0) & 0xff);
    bind(NUMBER, m_Filter.number.has_value(), m_Filter.number);
}

std::vector<std::string> CRecordQuery::Columns(bool all) {
    if (all) {
        return RecordColumns();
    }
    return {"id",    "time", "uid",  "application", "playback",
            "event", "kind", "what", "network",     "url"};
}

RecordFields CRecordQuery::Fields() const {
    const CTYStatement& s = m_Statement;
    RecordFields fields;
    fields.id = s.Int(ID);
    fields.arrival = TimeCell{s.Int(ARRIVAL)};
    fields.time = s.Int32(TIME_SEC) * std::int64_t{1'000'000'000} + s.Int32(TIME_NSEC);
    fields.sender = std::string(s.Text(BUS_NAME));
    fields.uid = CellOf(s, UID);
    fields.pid = CellOf(s, PID);
    fields.application = s.Text(SERVICE_ID);
    fields.version = s.Text(SERVICE_VERSION);
    fields.playback = s.Text(PLAYBACK_ID);
    // The store has the bytes of the record; the player is unsigned, the types are not.
    fields.player = static_cast<std::uint8_t>(s.Int(PLAYER_ID));
    fields.network = SignedByte(s.Int(NETWORK_TYPE));
    fields.drm = SignedByte(s.Int(DRM_TYPE));
    fields.content = SignedByte(s.Int(CONTENT_TYPE));
    fields.code = static_cast<int>(s.Int(EVENT));
    fields.param1 = s.Int(PARAM1);
    fields.param2 = s.Int(PARAM2);
    fields.title = s.Text(TITLE);
    fields.url = CellOf(s, URL);
    fields.urlCut = s.Int(URL_CUT);
    fields.duration = s.Int(DURATION);
    fields.channel = s.Text(CHANNEL_ID);
    fields.genre = s.Text(GENRE);
    fields.customInfo = s.Text(CUSTOM_INFO);
    return fields;
}

Row CRecordQuery::Get() const {
    RecordFields fields = Fields();
    if (m_bAll) {
        return RecordRow(std::move(fields));
    }
    return {std::move(fields.id),        TimeCell{fields.time},
            std::move(fields.uid),       std::move(fields.application),
            std::move(fields.playback),  EventName(fields.code),
            EventKind(fields.code),      DescribeRecord(fields.code, fields.param1, fields.param2),
            NetworkName(fields.network), std::move(fields.url)};
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

std::vector<std::string> RecordSortColumns() {
    std::vector<std::string> names;
    for (const SortColumn& column : kSortable) {
        names.emplace_back(column.pName);
    }
    return names;
}

int PrintRecords(const Context& context, const RecordsOptions& options) {
    if (options.follow) {
        FollowRecords(context, options.filter);
        return EXIT_OK;
    }
    const bool all = context.format != Format::TABLE;
    CTYDatabase database = OpenForReading(context);
    Filter filter = options.filter;
    if (const auto status = CompletePlayback(context, database, filter)) {
        return *status;
    }
    CRecordQuery query(database, filter, all || options.raw, options.order);
    if (options.raw) {
        return PrintRaw(context, query);
    }
    const auto pWriter = MakeWriter(context, CRecordQuery::Columns(all));
    query.Begin(0);
    while (query.Step()) {
        pWriter->Add(query.Get());
    }
    EndRows(context, *pWriter, "no records match");
    return EXIT_OK;
}
