// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include <sstream>
#include <string_view>

namespace {

// The service allows an application that only has bindings.
constexpr const char* kList = R"sql(
SELECT a.application, coalesce(p.value, 1),
       max(coalesce(p.changed, 0), coalesce((SELECT max(changed) FROM bindings b
                                             WHERE b.application = a.application), 0)),
       (SELECT group_concat(uid, ' ') FROM (SELECT uid FROM bindings b
                                            WHERE b.application = a.application ORDER BY uid)),
       coalesce(p.keep_queries, 0)
FROM (SELECT application FROM policies UNION SELECT application FROM bindings) a
     LEFT JOIN policies p ON p.application = a.application
WHERE ?1 IS NULL OR a.application = ?1
ORDER BY a.application)sql";

// Without a value, what applied to the application before stays.
constexpr const char* kSet = R"sql(
INSERT INTO policies(application, value, keep_queries, changed)
VALUES(?1, coalesce(?2, iif(EXISTS (SELECT 1 FROM bindings WHERE application = ?1), 1,
                            (SELECT value FROM policies WHERE application = '*')), 1),
       coalesce(?3, 0), ?4)
ON CONFLICT(application) DO UPDATE SET value = coalesce(?2, value),
    keep_queries = coalesce(?3, keep_queries), changed = excluded.changed)sql";

int ReportMissing(const Context& context, const char* pWhat, const std::string& application) {
    context.errors << "tallyra: no " << pWhat << " for " << application << "\n";
    return EXIT_NOT_FOUND;
}

std::unique_ptr<IRowWriter> MakeListWriter(const Context& context) {
    return MakeWriter(context, {"application", "policy", "changed", "uids", "keep_queries"});
}

Cell UsersOf(std::string_view text) {
    ListCell users;
    std::istringstream words{std::string(text)};
    for (std::int64_t uid = 0; words >> uid;) {
        users.numbers.push_back(uid);
    }
    return users;
}

void AddRow(const CTYStatement& s, IRowWriter& writer) {
    writer.Add({std::string(s.Text(0)), s.Int(1), TimeCell{s.Int(2)}, UsersOf(s.Text(3)),
                FlagCell{s.Int(4) != 0}});
}

// An application without a policy of its own has that of *, which allows all unless it is set.
int PrintInForce(const Context& context, CTYDatabase& database, const std::string& application) {
    const auto pWriter = MakeListWriter(context);
    CTYStatement statement(database, kList);
    for (const std::string& name : {application, std::string("*")}) {
        statement.Begin(name);
        if (statement.Step()) {
            AddRow(statement, *pWriter);
            break;
        }
        statement.Reset();
    }
    if (pWriter->Rows() == 0) {
        pWriter->Add({"*", std::int64_t{1}, std::monostate(), ListCell{}, FlagCell{false}});
    }
    pWriter->End();
    return EXIT_OK;
}

}  // namespace

int ListPolicies(const Context& context) {
    CTYDatabase database = OpenForReading(context);
    CTYStatement statement(database, kList);
    const auto pWriter = MakeListWriter(context);
    statement.Begin(nullptr);
    while (statement.Step()) {
        AddRow(statement, *pWriter);
    }
    EndRows(context, *pWriter, "no policies and no bindings");
    return EXIT_OK;
}

int SetPolicy(const Context& context, const PolicyChange& change) {
    CTYDatabase database = OpenForWriting(context);
    CTYStatement(database, kSet)
        .Run(change.application, change.value, change.keepQueries, context.now);
    return PrintInForce(context, database, change.application);
}

int UnsetPolicy(const Context& context, const std::string& application) {
    CTYDatabase database = OpenForWriting(context);
    CTYTransaction transaction(database);
    CTYStatement(database, "DELETE FROM policies WHERE application = ?").Run(application);
    const int policies = database.Changes();
    CTYStatement(database, "DELETE FROM bindings WHERE application = ?").Run(application);
    const int bindings = database.Changes();
    transaction.Commit();
    return policies + bindings > 0 ? PrintInForce(context, database, application)
                                   : ReportMissing(context, "policy", application);
}

int BindApplication(const Context& context, const PolicyChange& change) {
    CTYDatabase database = OpenForWriting(context);
    CTYTransaction transaction(database);
    CTYStatement add(database,
                     "INSERT OR REPLACE INTO bindings(application, uid, changed) VALUES(?, ?, ?)");
    for (const std::int64_t uid : change.uids) {
        add.Run(change.application, uid, context.now);
    }
    transaction.Commit();
    return PrintInForce(context, database, change.application);
}

int UnbindApplication(const Context& context, const PolicyChange& change) {
    CTYDatabase database = OpenForWriting(context);
    CTYTransaction transaction(database);
    int removed = 0;
    if (change.uids.empty()) {
        CTYStatement(database, "DELETE FROM bindings WHERE application = ?")
            .Run(change.application);
        removed = database.Changes();
    }
    for (const std::int64_t uid : change.uids) {
        CTYStatement(database, "DELETE FROM bindings WHERE application = ? AND uid = ?")
            .Run(change.application, uid);
        removed += database.Changes();
    }
    transaction.Commit();
    return removed > 0 ? PrintInForce(context, database, change.application)
                       : ReportMissing(context, "binding", change.application);
}
