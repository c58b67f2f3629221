// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures the queries of the command "tallyra" on a large store, and finds those that use no
// index.

#include "Commands.h"
#include "ServiceBenchmarks.h"
#include "TYDatabase.h"
#include "TYEventCodes.h"
#include "Timing.h"

#include <sqlite3.h>

#include <algorithm>
#include <set>

namespace {

// The statements that the command executed.
std::vector<std::string>& Statements() {
    static std::vector<std::string> statements;
    return statements;
}

int OnStatement(unsigned, void*, void* pStatement, void*) {
    const char* pSql = sqlite3_sql(static_cast<sqlite3_stmt*>(pStatement));
    if (std::string_view(pSql).find("SELECT") != std::string_view::npos) {
        Statements().emplace_back(pSql);
    }
    return 0;
}

int Watch(sqlite3* pHandle, char**, const sqlite3_api_routines*) {
    return sqlite3_trace_v2(pHandle, SQLITE_TRACE_STMT, &OnStatement, nullptr);
}

using Question = std::function<int(const Context&)>;

class CQueries {
  public:
    CQueries(const Options& options, CResults& results)
        : m_nRuns(options.runs),
          m_strDb(options.settings.at("db")),
          m_Results(results),
          m_Database(m_strDb, CTYDatabase::Mode::READ_ONLY) {
        CTYStatement middle(m_Database,
                            "SELECT playback_id, service_id FROM playbacks "
                            "WHERE id = (SELECT max(id) / 2 FROM playbacks)");
        middle.Step();
        m_strPlayback = middle.Text(0);
        m_strApplication = middle.Text(1);
        m_nSecond = ArrivalAt(0.99);
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(&Watch));
    }

    void AskAll() {
        AskForRecords();
        AskForPlaybacks();
        Ask("stats", 1, [](const Context& context) { return PrintStats(context); });
        Ask("export", 1, [](const Context& context) {
            Context all{context.db,     Format::JSONL, context.out,
                        context.errors, Sink::PROGRAM, context.now};
            return Export(all, {});
        });
    }

  private:
    std::int64_t ArrivalAt(double share) {
        const auto id = static_cast<double>(m_Database.Number("SELECT max(id) FROM entries"));
        return m_Database.Number(("SELECT arrival FROM entries WHERE id = " +
                                  std::to_string(static_cast<std::int64_t>(id * share)))
                                     .c_str());
    }

    void AskForRecords() {
        const auto records = [this](const std::string& arguments, const auto& change) {
            RecordsOptions options;
            options.filter.limit = 100;
            change(options.filter);
            Ask("records " + arguments, m_nRuns,
                [&options](const Context& context) { return PrintRecords(context, options); });
        };
        records("", [](Filter&) {});
        records("--application A", [this](Filter& f) { f.application = m_strApplication; });
        records("--application UNKNOWN", [](Filter& f) { f.application = "org.example.none"; });
        records("--playback P", [this](Filter& f) { f.playback = m_strPlayback; });
        records("--playback UNKNOWN", [](Filter& f) { f.playback = "none"; });
        records("--code START", [](Filter& f) { f.code = TY_EVENT_START; });
        records("--code 77 (never sent)", [](Filter& f) { f.code = 77; });
        records("--since LAST-1%", [this](Filter& f) { f.since = m_nSecond; });
        records("--until FIRST-1%", [this](Filter& f) { f.until = ArrivalAt(0.01); });
        records("--since 50% --until 51% --limit -1", [this](Filter& f) {
            f.since = ArrivalAt(0.50);
            f.until = ArrivalAt(0.51);
            f.limit = -1;
        });
        records("--playback P --code START", [this](Filter& f) {
            f.playback = m_strPlayback;
            f.code = TY_EVENT_START;
        });
    }

    void AskForPlaybacks() {
        const auto playbacks = [this](const std::string& arguments, const auto& change) {
            Filter filter;
            filter.limit = 100;
            change(filter);
            Ask("playbacks " + arguments, m_nRuns,
                [&filter](const Context& context) { return PrintPlaybacks(context, filter); });
        };
        playbacks("", [](Filter&) {});
        playbacks("--application A", [this](Filter& f) { f.application = m_strApplication; });
        playbacks("--since LAST-1%", [this](Filter& f) { f.since = m_nSecond; });
        playbacks("--limit -1", [](Filter& f) { f.limit = -1; });
        Ask("show P", m_nRuns,
            [this](const Context& context) { return ShowPlayback(context, m_strPlayback); });
    }

    void Ask(const std::string& name, int repetitions, const Question& question) {
        std::vector<double> milliseconds;
        Statements().clear();
        for (int i = 0; i < repetitions; ++i) {
            std::ofstream out("/dev/null");
            const Context context{m_strDb, Format::TABLE, out, out, Sink::PROGRAM, m_nSecond};
            const Clock::time_point begin = Clock::now();
            const int status = question(context);
            milliseconds.push_back(NanosecondsSince(begin) / kNsPerMs);
            if (status != EXIT_OK) {
                throw std::runtime_error("tallyra " + name + " failed");
            }
        }
        const std::string tables = WithoutIndex(Plan());
        m_Results.Add({"tallyra " + name, tables.empty() ? "" : "no index: " + tables, "ms"},
                      milliseconds);
    }

    // The tables that SQLite scans from one end until it has enough rows.
    static std::string WithoutIndex(const std::vector<std::string>& plan) {
        const bool hasRuns = std::any_of(plan.begin(), plan.end(), [](const std::string& step) {
            return step.find("runs") != std::string::npos;
        });
        std::set<std::string> tables;
        for (const std::string& step : plan) {
            if (step.starts_with("SCAN") && step.find("subquery") == std::string::npos) {
                tables.insert(step.substr(5, step.find(' ', 5) - 5));
            } else if (!hasRuns && step.ends_with(" e USING INTEGER PRIMARY KEY (rowid>?)")) {
                tables.insert("entries");
            }
        }
        std::string names;
        for (const std::string& table : tables) {
            names += (names.empty() ? "" : ", ") + table;
        }
        return names;
    }

    // The query plans of the statements of one question, without duplicates.
    std::vector<std::string> Plan() {
        const std::set<std::string> statements(Statements().begin(), Statements().end());
        std::vector<std::string> steps;
        for (const std::string& sql : statements) {
            CTYStatement explain(m_Database, "EXPLAIN QUERY PLAN " + sql);
            while (explain.Step()) {
                steps.emplace_back(explain.Text(3));
            }
        }
        return steps;
    }

    const int m_nRuns;
    const std::string m_strDb;
    CResults& m_Results;
    CTYDatabase m_Database;
    std::string m_strPlayback;
    std::string m_strApplication;
    std::int64_t m_nSecond = 0;
};

}  // namespace

void MeasureQueries(const Options& options, CResults& results) {
    CQueries(options, results).AskAll();
}
