// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDamagedStore.h"

#include "TYRecordImage.h"

#include <cstring>
#include <tuple>

namespace {

// CROSS JOIN keeps SQLite from beginning with another table: the ids must come in their order.
// Continues with url_cut, which version 1 does not have.
constexpr const char* kSelect = R"sql(
SELECT e.id, e.arrival, s.id, s.bus, s.name, s.uid, s.pid, p.service_id, c.common, c.url,
       e.event, e.param1, e.param2, e.time_sec, e.time_nsec, e.padding, )sql";
constexpr const char* kFrom = R"sql(
FROM entries e CROSS JOIN contexts c ON c.id = e.context
     CROSS JOIN playbacks p ON p.id = c.playback CROSS JOIN senders s ON s.id = p.sender
WHERE e.id BETWEEN ? AND ? ORDER BY e.id
)sql";

enum Column {
    ID,
    ARRIVAL,
    SENDER,
    BUS,
    NAME,
    UID,
    PID,
    APPLICATION,
    COMMON,
    URL,
    EVENT,
    PARAM1,
    PARAM2,
    TIME_SEC,
    TIME_NSEC,
    PADDING,
    URL_CUT
};

bool HasUrlCuts(CTYDatabase& database) {
    return database.Number(
               "SELECT count(*) FROM pragma_table_info('contexts') WHERE name = 'url_cut'") > 0;
}

std::optional<std::int64_t> NumberOrNull(const CTYStatement& row, int column) {
    return row.IsNull(column) ? std::nullopt : std::optional(row.Int(column));
}

TYMediaData RecordOf(const CTYStatement& row) {
    auto record = RecordFromCommonPart(row.Text(COMMON));
    if (!record) {
        throw CTYDatabaseError(SQLITE_CORRUPT, "a context is too long");
    }
    record->event = static_cast<std::uint8_t>(row.Int(EVENT));
    record->param1 = static_cast<std::int32_t>(row.Int(PARAM1));
    record->param2 = static_cast<std::int32_t>(row.Int(PARAM2));
    record->time.sec = static_cast<decltype(record->time.sec)>(row.Int(TIME_SEC));
    record->time.nsec = static_cast<decltype(record->time.nsec)>(row.Int(TIME_NSEC));
    const auto padding = static_cast<std::uint32_t>(row.Int(PADDING));
    std::memcpy(record->padding2, &padding, sizeof(record->padding2));
    return *record;
}

std::optional<std::string> UrlOf(const CTYStatement& row) {
    return row.IsNull(URL) ? std::nullopt : std::optional<std::string>(row.Text(URL));
}

// Records with the same key arrived together.
std::tuple<std::int64_t, std::int64_t, std::string> KeyOf(const CTYStatement& row) {
    return {row.Int(SENDER), row.Int(ARRIVAL), std::string(row.Text(APPLICATION))};
}

void Begin(const CTYStatement& row, CTYDamagedStore::Found& found) {
    found.batch.sender = {std::string(row.Text(BUS)), std::string(row.Text(NAME)),
                          NumberOrNull(row, UID), NumberOrNull(row, PID)};
    found.batch.arrival = row.Int(ARRIVAL);
    found.application = row.Text(APPLICATION);
}

}  // namespace

CTYDamagedStore::CTYDamagedStore(const std::string& path) {
    // The log may be what is damaged.
    for (const auto mode : {CTYDatabase::Mode::READ_ONLY, CTYDatabase::Mode::IMMUTABLE}) {
        try {
            m_pDatabase = std::make_unique<CTYDatabase>(path, mode);
            // Makes SQLite skip definitions that it cannot use.
            m_pDatabase->Execute("PRAGMA writable_schema = ON");
            m_pDatabase->Number("SELECT count(*) FROM sqlite_schema");
            m_strSelect =
                kSelect + std::string(HasUrlCuts(*m_pDatabase) ? "c.url_cut" : "0") + kFrom;
            m_pOrigins = std::make_unique<CTYOrigins>(*m_pDatabase);
            return;
        } catch (const CTYDatabaseError&) {
            m_pDatabase.reset();
        }
    }
}

std::optional<std::int64_t> CTYDamagedStore::NumberOf(const char* pSql) {
    try {
        CTYStatement statement(*m_pDatabase, pSql);
        if (statement.Step() && !statement.IsNull(0)) {
            return statement.Int(0);
        }
    } catch (const CTYDatabaseError&) {
        return std::nullopt;
    }
    return std::nullopt;
}

std::int64_t CTYDamagedStore::FirstId() {
    if (m_pDatabase == nullptr) {
        return 1;
    }
    const auto first = NumberOf("SELECT min(id) FROM entries");
    return first ? *first : NumberOf("SELECT min(first) FROM runs").value_or(1);
}

std::int64_t CTYDamagedStore::LastId() {
    if (m_pDatabase == nullptr) {
        return 0;
    }
    for (const char* pSql : {"SELECT max(id) FROM entries", "SELECT max(last) FROM runs",
                             "SELECT seq FROM sqlite_sequence WHERE name = 'entries'"}) {
        if (const auto last = NumberOf(pSql)) {
            return *last;
        }
    }
    return 0;
}

CTYDamagedStore::Found CTYDamagedStore::Read(std::int64_t first, std::int64_t last) {
    Found found;
    CTYStatement row(*m_pDatabase, m_strSelect);
    row.Begin(first, last);
    std::size_t bytes = 0;
    std::vector<std::int64_t> ids;
    decltype(KeyOf(row)) key;
    while (found.batch.records.size() < kRecordsAtOnce && bytes < kBytesAtOnce && row.Step()) {
        const std::int64_t id = row.Int(ID);
        if (id < first || id > last || id <= found.last) {
            throw CTYDatabaseError(SQLITE_CORRUPT, "the ids are not in their order");
        }
        if (found.batch.records.empty()) {
            Begin(row, found);
            key = KeyOf(row);
        } else if (key != KeyOf(row)) {
            break;
        }
        found.batch.records.push_back(RecordOf(row));
        found.batch.urls.push_back(UrlOf(row));
        found.batch.urlCuts.push_back(row.Int(URL_CUT));
        found.last = id;
        ids.push_back(id);
        bytes += sizeof(TYMediaData) + row.Text(URL).size();
    }
    found.origins = m_pOrigins->Of(ids);
    return found;
}

std::optional<std::map<std::string, std::int64_t>> CTYDamagedStore::CountedBy(const char* pSql) {
    try {
        std::map<std::string, std::int64_t> counted;
        CTYStatement rows(*m_pDatabase, pSql);
        while (rows.Step()) {
            counted[std::string(rows.Text(0))] = rows.Int(1);
        }
        return counted;
    } catch (const CTYDatabaseError&) {
        return std::nullopt;
    }
}

std::optional<std::map<std::string, std::int64_t>> CTYDamagedStore::Counted() {
    if (m_pDatabase == nullptr) {
        return std::nullopt;
    }
    const auto counted =
        CountedBy("SELECT service_id, sum(records) FROM playbacks GROUP BY service_id");
    return counted ? counted : CountedBy("SELECT '', total(last - first + 1) FROM runs");
}
