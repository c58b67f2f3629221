// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYKeptRows.h"

#include <array>
#include <utility>

namespace {

struct Table {
    const char* pSelect;
    const char* pSelectOfVersion1;  ///< null: version 1 does not have the table
    const char* pInsert;
};

// Policies and bindings come first: they are the settings.
constexpr std::array kTexts = {
    Table{"SELECT application, value, changed, keep_queries FROM policies",
          "SELECT application, value, changed, 0 FROM policies",
          "INSERT OR REPLACE INTO policies(application, value, changed, keep_queries) "
          "VALUES(?, ?, ?, ?)"},
    Table{"SELECT application, uid, changed FROM bindings", nullptr,
          "INSERT OR REPLACE INTO bindings(application, uid, changed) VALUES(?, ?, ?)"},
    Table{"SELECT at, reason, application, playbacks, records FROM losses ORDER BY id",
          "SELECT at, iif(reason = 'size', 'room', reason), '', playbacks, records FROM losses "
          "ORDER BY id",
          "INSERT INTO losses(at, reason, application, playbacks, records) VALUES(?, ?, ?, ?, ?)"},
    Table{"SELECT file, application, next, records FROM recoveries", nullptr,
          "INSERT OR REPLACE INTO recoveries(file, application, next, records) "
          "VALUES(?, ?, ?, ?)"},
    // Says that the device forwards. How far it has come counts for the damaged store alone.
    Table{"SELECT 1 FROM forwarding LIMIT 1", nullptr,
          "INSERT OR IGNORE INTO forwarding(id) VALUES(?)"}};

}  // namespace

std::vector<CTYKeptRows::Row> CTYKeptRows::Read(CTYDatabase& database, const char* pSelect) {
    std::vector<Row> rows;
    CTYStatement statement(database, pSelect);
    while (statement.Step()) {
        Row& row = rows.emplace_back();
        for (int i = 0; i < statement.Columns(); ++i) {
            if (statement.Type(i) == SQLITE_INTEGER) {
                row.emplace_back(statement.Int(i));
            } else {
                row.emplace_back(std::string(statement.Text(i)));
            }
        }
    }
    return rows;
}

void CTYKeptRows::ReadSettings(CTYDatabase& store) {
    std::array<std::vector<Row>, kSettings> rows;
    for (std::size_t i = 0; i < kSettings; ++i) {
        rows.at(i) = Read(store, kTexts.at(i).pSelect);
    }
    std::move(rows.begin(), rows.end(), m_Rows.begin());
}

void CTYKeptRows::ReadWhatIsLeft(CTYDatabase& damaged) {
    for (std::size_t i = 0; i < kTables; ++i) {
        for (const char* pSelect : {kTexts.at(i).pSelect, kTexts.at(i).pSelectOfVersion1}) {
            try {
                if (pSelect != nullptr) {
                    m_Rows.at(i) = Read(damaged, pSelect);
                    break;
                }
            } catch (const CTYDatabaseError&) {
                // The next text, or the rows that are known.
                continue;
            }
        }
    }
}

void CTYKeptRows::Write(CTYDatabase& store) const {
    for (std::size_t i = 0; i < kTables; ++i) {
        CTYStatement insert(store, kTexts.at(i).pInsert);
        for (const Row& row : m_Rows.at(i)) {
            insert.Reset();
            int index = 0;
            for (const Value& value : row) {
                ++index;
                std::visit([&](const auto& bound) { insert.Bind(index, bound); }, value);
            }
            while (insert.Step()) {
            }
        }
    }
}

void CTYKeptRows::Clear() {
    m_Rows = {};
}
