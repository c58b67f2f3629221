// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

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
ORDER BY a.application)sql";

// Without a value, a new policy allows the application, and an old one keeps its value.
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

}  // namespace

int ListPolicies(const Context& context) {
    CTYDatabase database = OpenForReading(context);
    CTYStatement statement(database, kList);
    const auto pWriter =
        MakeWriter(context, {"application", "policy", "changed", "uids", "keep_queries"});
    while (statement.Step()) {
        pWriter->Add({std::string(statement.Text(0)), statement.Int(1), TimeCell{statement.Int(2)},
                      std::string(statement.Text(3)), statement.Int(4)});
    }
    EndRows(context, *pWriter, "no policies and no bindings");
    return EXIT_OK;
}

int SetPolicy(const Context& context, const PolicyChange& change) {
    CTYDatabase database = OpenForWriting(context);
    CTYStatement(database, kSet)
        .Run(change.application, change.value, change.keepQueries, context.now);
    return EXIT_OK;
}

int UnsetPolicy(const Context& context, const std::string& application) {
    CTYDatabase database = OpenForWriting(context);
    CTYTransaction transaction(database);
    CTYStatement(database, "DELETE FROM policies WHERE application = ?").Run(application);
    const int policies = database.Changes();
    CTYStatement(database, "DELETE FROM bindings WHERE application = ?").Run(application);
    const int bindings = database.Changes();
    transaction.Commit();
    return policies + bindings > 0 ? EXIT_OK : ReportMissing(context, "policy", application);
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
    return EXIT_OK;
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
    return removed > 0 ? EXIT_OK : ReportMissing(context, "binding", change.application);
}
