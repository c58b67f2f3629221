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
        writer.Add({"bytes_held_by_user", BytesCell{each.Int(1)},
                    uid < 0 ? "unknown" : std::to_string(uid)});
    }
}

// The sum comes first: without losses it is 0.
void AddLosses(const Context& context, CTYDatabase& database, IRowWriter& writer) {
    constexpr const char* kLost = "records_lost_in_a_day";
    CTYStatement all(database, "SELECT coalesce(sum(records), 0) FROM losses WHERE at > ?");
    writer.Add({kLost, all.First(context.now - kDay).value_or(0), std::monostate()});
    CTYStatement each(database,
                      "SELECT reason, sum(records) FROM losses WHERE at > ? GROUP BY reason "
                      "ORDER BY sum(records) DESC, reason");
    each.Begin(context.now - kDay);
    while (each.Step()) {
        writer.Add({kLost, each.Int(1), std::string(each.Text(0))});
    }
}

// Without a row, no forwarder has run.
void AddForwarding(CTYDatabase& database, IRowWriter& writer) {
    CTYStatement state(database,
                       "SELECT stored, sent, (SELECT count(*) FROM entries WHERE id > sent) "
                       "FROM forwarding");
    if (!state.Step()) {
        return;
    }
    int column = 0;
    for (const char* pWhat :
         {"forwarded_stored_up_to", "forwarded_sent_up_to", "forwarded_records_to_send"}) {
        writer.Add({pWhat, state.Int(column++), std::monostate()});
    }
}

// Nothing: the service's store cannot be known.
std::optional<bool> Serves(const ServiceState& service, const Context& context) {
    if (!service.store) {
        return std::nullopt;
    }
    std::error_code error;
    return FollowLinks(*service.store) == FollowLinks(context.db) ||
           std::filesystem::equivalent(*service.store, context.db, error);
}

std::string DescribeService(const ServiceState& service, const Context& context) {
    if (!service.error.empty()) {
        return "unknown, the bus does not answer: " + service.error;
    }
    if (!service.pid) {
        return "not running";
    }
    return Serves(service, context).value_or(true)
               ? "running"
               : "running, with another store: " + *service.store;
}

void AddService(const ServiceState& service, const Context& context, IRowWriter& writer) {
    const auto add = [&](const char* pWhat, Cell value) {
        writer.Add({pWhat, std::move(value), std::monostate()});
    };
    add("service", DescribeService(service, context));
    add("service_bus", service.bus);
    if (service.pid) {
        add("service_process", std::int64_t{*service.pid});
        add("service_since", service.since ? Cell(TimeCell{*service.since}) : Cell());
    }
}

Cell FreeBytes(const Context& context) {
    std::error_code error;
    const auto space = std::filesystem::space(FollowLinks(context.db), error);
    return error ? Cell() : Cell(BytesCell{static_cast<std::int64_t>(space.available)});
}

/// The settings of the service. It does not save them: its command line tells them while it runs.
class CSettings {
  public:
    CSettings(const ServiceState& service, const Context& context)
        : m_Service(service), m_bTold(Serves(service, context).value_or(false)) {}

    void AddTo(IRowWriter& writer) const {
        constexpr int kMebibyte = 20;
        constexpr std::int64_t kHoursADay = 24;
        const TYStoreLimits limits;
        const std::int64_t mebibytes = BoundOf("--max-size", limits.bytes >> kMebibyte);
        writer.Add({"bound_bytes", BytesCell{mebibytes << kMebibyte}, Source()});
        const std::int64_t days = BoundOf("--max-age", limits.age.count() / kHoursADay);
        writer.Add({"bound_days", days, Source()});
        const bool areKept = m_bTold && m_Service.HasFlag("--keep-queries");
        writer.Add({"url_queries", areKept ? "kept" : "redacted", Source()});
    }

  private:
    const char* Source() const { return m_bTold ? "service" : "default"; }

    std::int64_t BoundOf(const char* pOption, std::int64_t standard) const {
        const std::string text = m_bTold ? m_Service.Argument(pOption).value_or("") : "";
        std::int64_t bound = standard;
        std::from_chars(text.data(), text.data() + text.size(), bound);
        return bound;
    }

    const ServiceState& m_Service;
    const bool m_bTold;  ///< whether the service of this store runs
};

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
        writer.Add({"policy", text, std::string(each.Text(0))});
    }
}

void AddStore(const Context& context, IRowWriter& writer) {
    CTYDatabase database = OpenForReading(context);
    const auto add = [&](const char* pWhat, Cell value) {
        writer.Add({pWhat, std::move(value), std::monostate()});
    };
    add("epoch", TextCell(database, "SELECT epoch FROM store"));
    add("schema_version", std::int64_t{SchemaVersion()});
    add("records", database.Number("SELECT coalesce(sum(records), 0) FROM playbacks"));
    add("newest_arrival", NewestCell(database));
    add("database_bytes",
        BytesCell{database.Number("PRAGMA page_size") * database.Number("PRAGMA page_count")});
    add("log_bytes", BytesCell{LogBytes(context)});
    AddHoldings(database, writer);
    AddLosses(context, database, writer);
    AddForwarding(database, writer);
    AddPolicies(database, writer);
}

}  // namespace

int PrintStatus(const Context& context, const std::string& address) {
    RowStyle style = StyleOf(context);
    style.wholeTexts = true;
    const auto pWriter = MakeRowWriter(context.out, {"what", "value", "of"}, style);
    const ServiceState service = FindService(address);
    AddService(service, context, *pWriter);
    pWriter->Add({"store", context.db, std::monostate()});
    pWriter->Add({"disk_free_bytes", FreeBytes(context), std::monostate()});
    CSettings(service, context).AddTo(*pWriter);
    int status = EXIT_OK;
    try {
        AddStore(context, *pWriter);
    } catch (const CTYDatabaseError& error) {
        pWriter->Add({"store_error", error.what(), std::monostate()});
        context.errors << "tallyra: " << error.what() << "\n";
        status = EXIT_FAILED;
    }
    pWriter->End();
    return status;
}
