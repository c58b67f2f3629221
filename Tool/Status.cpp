// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "TYSchema.h"
#include "TYStorePath.h"

#include <filesystem>

namespace {

constexpr std::int64_t kDay = 86'400'000'000'000;

Cell TextCell(CTYDatabase& database, const char* pSql) {
    CTYStatement statement(database, pSql);
    return statement.Step() ? Cell(std::string(statement.Text(0))) : Cell();
}

Cell NewestCell(CTYDatabase& database) {
    CTYStatement newest(database, "SELECT arrival FROM runs ORDER BY first DESC LIMIT 1");
    return newest.Step() ? Cell(TimeCell{newest.Int(0)}) : Cell();
}

// The log exists while the store is open anywhere.
std::int64_t LogBytes(const Context& context) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(FollowLinks(context.db) + "-wal", error);
    return error ? 0 : static_cast<std::int64_t>(size);
}

void AddHoldings(CTYDatabase& database, IRowWriter& writer) {
    CTYStatement each(database, "SELECT uid, bytes FROM holdings ORDER BY bytes DESC, uid");
    while (each.Step()) {
        const std::int64_t uid = each.Int(0);
        writer.Add({"bytes_held_by_user", uid < 0 ? "unknown" : std::to_string(uid), each.Int(1)});
    }
}

void AddLosses(const Context& context, CTYDatabase& database, IRowWriter& writer) {
    CTYStatement each(database,
                      "SELECT reason, sum(records) FROM losses WHERE at > ? GROUP BY reason "
                      "ORDER BY sum(records) DESC, reason");
    each.Begin(context.now - kDay);
    while (each.Step()) {
        writer.Add({"records_lost_in_a_day", std::string(each.Text(0)), each.Int(1)});
    }
}

}  // namespace

int PrintStatus(const Context& context) {
    CTYDatabase database = OpenForReading(context);
    const auto pWriter = MakeWriter(context, {"what", "of", "value"});
    const auto add = [&](const char* pWhat, Cell value) {
        pWriter->Add({pWhat, std::monostate(), std::move(value)});
    };
    add("store", context.db);
    add("epoch", TextCell(database, "SELECT epoch FROM store"));
    add("schema_version", std::int64_t{SchemaVersion()});
    add("records", database.Number("SELECT coalesce(sum(records), 0) FROM playbacks"));
    add("newest_arrival", NewestCell(database));
    add("database_bytes",
        database.Number("PRAGMA page_size") * database.Number("PRAGMA page_count"));
    add("log_bytes", LogBytes(context));
    AddHoldings(database, *pWriter);
    AddLosses(context, database, *pWriter);
    pWriter->End();
    return EXIT_OK;
}
