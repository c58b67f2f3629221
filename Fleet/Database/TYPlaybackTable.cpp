// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPlaybackTable.h"

#include "TYSqlText.h"

#include <algorithm>
#include <iterator>

// The rows that exist are deleted, which also reads them, and written again with all others by one
// COPY: PostgreSQL writes a new version of an updated row anyway, and a third statement would cost
// more. Readers see the old rows until the commit. No other transaction writes the same rows,
// because each first locks the devices.

namespace {

std::string SqlToTake() {
    std::string sql =
        "DELETE FROM playbacks p USING unnest($1::integer[], $2::text[]) AS w(device, playback_id) "
        "WHERE p.device = w.device AND p.playback_id = w.playback_id RETURNING ";
    for (const char* pName : CTYPlaybackRow::kNames) {
        sql += std::string("p.") + pName + ", ";
    }
    sql.resize(sql.size() - 2);
    return sql;
}

}  // namespace

void CTYPlaybackTable::Take(pqxx::transaction_base& transaction,
                            std::vector<CTYPlaybackRow>& rows) {
    static const std::string sql = SqlToTake();
    std::vector<int> devices;
    std::vector<std::string> playbacks;
    for (const auto& [key, records] : m_New) {
        devices.push_back(key.first);
        playbacks.push_back(key.second);
    }
    for (const pqxx::row& row :
         transaction.exec_params(sql, ArrayText(devices), ArrayText(playbacks))) {
        rows.emplace_back(row);
    }
}

void CTYPlaybackTable::Write(pqxx::transaction_base& transaction) {
    if (m_New.empty()) {
        return;
    }
    std::vector<CTYPlaybackRow> rows;
    Take(transaction, rows);
    std::map<Key, std::size_t> known;
    for (const CTYPlaybackRow& row : rows) {
        known.emplace(Key{row.Device(), row.PlaybackId()}, known.size());
    }
    pqxx::stream_to stream(transaction, "playbacks", CTYPlaybackRow::kNames);
    std::vector<std::string> texts;
    for (const auto& [key, records] : m_New) {
        const auto found = known.find(key);
        CTYPlaybackRow row = found == known.end() ? CTYPlaybackRow(key.first, key.second)
                                                  : std::move(rows[found->second]);
        for (const TYNewRecord& record : records) {
            row.Add(record);
        }
        stream << row.Compute(texts);
    }
    stream.complete();
}
