// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "ServiceState.h"
#include "TYPruner.h"
#include "TYSchema.h"
#include "TYStorePath.h"

#include <charconv>
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

void AddService(const ServiceState& service, IRowWriter& writer) {
    const auto add = [&](const char* pWhat, Cell value) {
        writer.Add({pWhat, std::monostate(), std::move(value)});
    };
    if (!service.error.empty()) {
        add("service", "unknown, the bus does not answer: " + service.error);
    } else {
        add("service", service.pid ? "running" : "not running");
    }
    add("service_bus", service.bus);
    if (service.pid) {
        add("service_process", std::int64_t{*service.pid});
        add("service_since", service.since ? Cell(TimeCell{*service.since}) : Cell());
    }
}

std::int64_t FreeBytes(const Context& context) {
    std::error_code error;
    const auto space = std::filesystem::space(FollowLinks(context.db), error);
    return error ? 0 : static_cast<std::int64_t>(space.available);
}

// A service on this bus may store elsewhere.
bool Serves(const ServiceState& service, const Context& context) {
    const auto db = service.Argument("--db");
    std::error_code error;
    return service.pid && !service.arguments.empty() &&
           (!db || std::filesystem::equivalent(*db, context.db, error));
}

void AddBound(const ServiceState& service, const Context& context, const char* pOption,
              IRowWriter& writer, const char* pWhat, std::int64_t standard, std::int64_t unit) {
    const bool isTold = Serves(service, context);
    const std::string text = isTold ? service.Argument(pOption).value_or("") : "";
    std::int64_t bound = standard;
    std::from_chars(text.data(), text.data() + text.size(), bound);
    writer.Add({pWhat, isTold ? "service" : "default", bound * unit});
}

// The service does not save its limits: its command line tells them while it runs.
void AddBounds(const ServiceState& service, const Context& context, IRowWriter& writer) {
    constexpr int kMebibyte = 20;
    constexpr std::int64_t kHoursADay = 24;
    const TYStoreLimits limits;
    AddBound(service, context, "--max-size", writer, "bound_bytes", limits.bytes >> kMebibyte,
             std::int64_t{1} << kMebibyte);
    AddBound(service, context, "--max-age", writer, "bound_days", limits.age.count() / kHoursADay,
             1);
}

void AddPolicies(CTYDatabase& database, IRowWriter& writer) {
    CTYStatement each(database, R"sql(
SELECT a.application, coalesce(p.value, 1), coalesce(p.keep_queries, 0),
       (SELECT group_concat(uid, ' ') FROM (SELECT uid FROM bindings b
                                            WHERE b.application = a.application ORDER BY uid))
FROM (SELECT application FROM policies UNION SELECT application FROM bindings
      UNION SELECT '*') a
     LEFT JOIN policies p ON p.application = a.application
ORDER BY a.application)sql");
    while (each.Step()) {
        std::string text = each.Int(1) == 0 ? "refused" : "allowed";
        text += each.IsNull(3) ? "" : ", only from users " + std::string(each.Text(3));
        text += each.Int(2) == 0 ? "" : ", with the queries of URLs";
        writer.Add({"policy", std::string(each.Text(0)), text});
    }
}

}  // namespace

int PrintStatus(const Context& context, const std::string& address) {
    CTYDatabase database = OpenForReading(context);
    const auto pWriter = MakeWriter(context, {"what", "of", "value"});
    const auto add = [&](const char* pWhat, Cell value) {
        pWriter->Add({pWhat, std::monostate(), std::move(value)});
    };
    const ServiceState service = FindService(address, context.now);
    AddService(service, *pWriter);
    add("store", context.db);
    add("epoch", TextCell(database, "SELECT epoch FROM store"));
    add("schema_version", std::int64_t{SchemaVersion()});
    add("records", database.Number("SELECT coalesce(sum(records), 0) FROM playbacks"));
    add("newest_arrival", NewestCell(database));
    add("database_bytes",
        database.Number("PRAGMA page_size") * database.Number("PRAGMA page_count"));
    add("log_bytes", LogBytes(context));
    AddBounds(service, context, *pWriter);
    add("disk_free_bytes", FreeBytes(context));
    AddHoldings(database, *pWriter);
    AddLosses(context, database, *pWriter);
    AddPolicies(database, *pWriter);
    pWriter->End();
    return EXIT_OK;
}
