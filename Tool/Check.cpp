// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"
#include "Progress.h"

#include "TYEventCodes.h"
#include "TYSchema.h"

#include <functional>

// Problem: SQLite's own check finds damaged pages and indexes, but not rows that contradict each
// other, as after a damaged page was repaired by other means.
//
// Idea: ask SQLite first; then count, with one query each, the rows that break what the store
// always keeps (see TYSchema.cpp and TYStore.cpp): every record belongs to one run and to that
// run's context, and the totals of a playback equal the sums over its records.
//
// Always true: each rule is checked by one statement, which sees one state of the store, so that a
// running service cannot cause a false finding; no lock is held between two of them. A query that
// fails is a finding too, and does not keep the others from running.

namespace {

/// A rule of the store. The query returns how many rows break it, and the first of them.
struct Rule {
    const char* pBroken;
    std::string sql;
};

std::string Sum(const std::string& value, int code) {
    return "sum(CASE WHEN event = " + std::to_string(code) + " THEN " + value + " ELSE 0 END)";
}

std::string WrongTotals() {
    return "SELECT count(*), min(p.id) FROM playbacks p LEFT JOIN (SELECT c.playback AS playback, "
           "count(*) AS records, " +
           Sum("max(param2, 0)", TY_EVENT_PLAYING_TIME) + " AS watched_ms, " +
           Sum("1", TY_EVENT_BUFFERING_TIME) + " AS stalls, " +
           Sum("max(param1, 0)", TY_EVENT_BUFFERING_TIME) +
           " AS stalled_ms, sum(event >= " + std::to_string(kFirstErrorCode) +
           ") AS errors FROM entries e JOIN contexts c ON c.id = e.context GROUP BY c.playback) t "
           "ON t.playback = p.id WHERE p.records <> coalesce(t.records, 0) "
           "OR p.watched_ms <> coalesce(t.watched_ms, 0) OR p.stalls <> coalesce(t.stalls, 0) "
           "OR p.stalled_ms <> coalesce(t.stalled_ms, 0) OR p.errors <> coalesce(t.errors, 0)";
}

std::vector<Rule> Rules() {
    return {
        {"records without a run",
         "SELECT count(*), min(id) FROM entries e WHERE NOT EXISTS (SELECT 1 FROM runs r WHERE "
         "r.first = (SELECT max(first) FROM runs WHERE first <= e.id) AND r.last >= e.id)"},
        {"records without a context",
         "SELECT count(*), min(id) FROM entries WHERE context NOT IN (SELECT id FROM contexts)"},
        {"runs with missing records",
         "SELECT count(*), min(first) FROM runs r WHERE last - first + 1 <> "
         "(SELECT count(*) FROM entries WHERE id BETWEEN r.first AND r.last)"},
        {"records with another context than their run",
         "SELECT count(*), min(e.id) FROM runs r JOIN entries e ON e.id BETWEEN r.first AND r.last "
         "WHERE e.context <> r.context"},
        {"playbacks with the context of another",
         "SELECT count(*), min(p.id) FROM playbacks p WHERE context IS NOT NULL AND NOT EXISTS "
         "(SELECT 1 FROM contexts WHERE id = p.context AND playback = p.id)"},
        {"playbacks with totals that differ from their records", WrongTotals()},
        {"users with wrong holdings",
         "SELECT count(*), min(uid) FROM (SELECT uid, sum(bytes) AS held FROM (SELECT uid, bytes "
         "FROM playbacks UNION ALL SELECT uid, -bytes FROM holdings) GROUP BY uid) "
         "WHERE held <> 0"},
        {"states of forwarding that store more than they sent",
         "SELECT count(*), min(id) FROM forwarding WHERE typeof(stored) <> 'integer' OR "
         "typeof(sent) <> 'integer' OR stored < 0 OR stored > sent"},
        {"batches to forward that overlap",
         "SELECT count(*), min(first) FROM (SELECT first, last, after, "
         "lag(last, 1, after) OVER (ORDER BY first) AS before FROM forwarding_batches) "
         "WHERE last < first OR after >= first OR after < before"},
        {"origins that do not fit to the records",
         "SELECT count(*), min(first) FROM (SELECT first, last, "
         "lag(last, 1, 0) OVER (ORDER BY first) AS before FROM origins) o "
         "WHERE last < first OR first <= before "
         "OR last > (SELECT seq FROM sqlite_sequence WHERE name = 'entries') "
         "OR NOT EXISTS (SELECT 1 FROM entries WHERE id BETWEEN o.first AND o.last)"},
    };
}

class CChecker {
  public:
    CChecker(const Context& context, CTYDatabase& database)
        : m_Context(context),
          m_Database(database),
          m_pWriter(context.format == Format::TABLE ? nullptr : MakeWriter(context, {"damage"})) {}

    // Returns the number of findings.
    int Run() {
        Try([this] { CheckPages(); });
        Try([this] { CheckReferences(); });
        Try([this] { CheckViews(); });
        for (const Rule& rule : Rules()) {
            Try([&] { CheckRule(rule); });
        }
        if (m_pWriter != nullptr) {
            m_pWriter->End();
        }
        return m_nFindings;
    }

  private:
    void Try(const std::function<void()>& check) {
        try {
            check();
        } catch (const CTYDatabaseError& error) {
            Report(std::string("cannot be read: ") + error.what());
        }
    }

    void CheckPages() {
        CTYStatement pages(m_Database, "PRAGMA integrity_check");
        while (pages.Step()) {
            if (const std::string text(pages.Text(0)); text != "ok") {
                Report(text);
            }
        }
    }

    void CheckReferences() {
        CTYStatement broken(m_Database, "PRAGMA foreign_key_check");
        while (broken.Step()) {
            Report("row " + std::to_string(broken.Int(1)) + " of " + std::string(broken.Text(0)) +
                   " names a missing row of " + std::string(broken.Text(2)));
        }
    }

    // Most commands read views, which tell them whatever an editor has put there.
    void CheckViews() {
        CTYDatabase expected(":memory:", CTYDatabase::Mode::READ_WRITE);
        MigrateSchema(expected);
        CTYStatement views(expected, "SELECT name, sql FROM sqlite_schema WHERE type = 'view'");
        CTYStatement same(m_Database,
                          "SELECT 1 FROM sqlite_schema WHERE type = 'view' AND name = ? "
                          "AND sql = ?");
        while (views.Step()) {
            if (!same.First(views.Text(0), views.Text(1))) {
                Report("the view " + std::string(views.Text(0)) + " is missing or was changed");
            }
        }
    }

    void CheckRule(const Rule& rule) {
        CTYStatement statement(m_Database, rule.sql);
        if (statement.Step() && statement.Int(0) > 0) {
            Report(rule.pBroken + (": " + std::to_string(statement.Int(0))) + ", the first is " +
                   std::to_string(statement.Int(1)));
        }
    }

    void Report(const std::string& text) {
        ++m_nFindings;
        m_Progress.Erase();
        if (m_pWriter != nullptr) {
            m_pWriter->Add({text});
        } else {
            m_Context.out << Printable(text) << "\n";
        }
    }

    const Context& m_Context;
    CTYDatabase& m_Database;
    CProgress m_Progress{m_Context.errors, "checking the store"};
    const std::unique_ptr<IRowWriter> m_pWriter;  ///< null for plain lines, instead of a table
    int m_nFindings = 0;
};

}  // namespace

int Check(const Context& context) {
    CTYDatabase database = OpenForReading(context);
    if (CChecker(context, database).Run() > 0) {
        context.errors << "tallyra: " << context.db << " is damaged\n";
        return EXIT_FAILED;
    }
    (context.format == Format::TABLE ? context.out : context.errors)
        << "no damage in " << database.Number("SELECT count(*) FROM entries") << " records\n";
    return EXIT_OK;
}
