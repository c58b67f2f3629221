// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-service": measures the collection service and the queries of the
// command "tallyra".

#include "Benchmark.h"
#include "Commands.h"
#include "Kpi.h"
#include "Load.h"
#include "PrivateBus.h"
#include "Proc.h"
#include "ServiceProcess.h"
#include "TYDatabase.h"
#include "TYEventCodes.h"
#include "Timing.h"

#include <sqlite3.h>

namespace {

/// A service on a bus of its own, with a new store.
class CService {
  public:
    CService(const Options& options, std::vector<std::string> arguments)
        : m_strDb(options.settings.at(0)) {
        for (const char* pSuffix : {"", "-wal", "-shm"}) {
            std::filesystem::remove(m_strDb + pSuffix);
        }
        arguments.insert(arguments.end(), {"--rate", "0", "--db", m_strDb});
        m_pProcess =
            std::make_unique<CServiceProcess>(options.settings.at(1), m_Bus.Address(), arguments);
        m_pProcess->WaitUntilReady();
    }

    const std::string& Address() const { return m_Bus.Address(); }
    double Kib(const char* pName) const {
        return static_cast<double>(ReadProcKib(m_pProcess->Pid(), pName));
    }
    double ProcessorMs() const { return ProcessorTimeOf(m_pProcess->Pid()) / kNsPerMs; }

    /// Ends load and service. A measurement counts only if the store holds what was accepted.
    void Finish(CLoad& load, bool discard) {
        load.Stop();
        m_pProcess->Terminate();
        const std::int64_t stored = CTYDatabase(m_strDb, CTYDatabase::Mode::READ_ONLY)
                                        .Number("SELECT count(*) FROM records");
        const std::int64_t expected = discard ? 0 : load.Accepted() * kFullBatch;
        if (load.Failed() != 0 || stored != expected) {
            throw std::runtime_error(std::to_string(load.Failed()) + " batches failed; " +
                                     std::to_string(stored) + " records are stored instead of " +
                                     std::to_string(expected));
        }
    }

  private:
    const std::string m_strDb;
    const CPrivateBus m_Bus;
    std::unique_ptr<CServiceProcess> m_pProcess;
};

void AddRate(const Options& options, const LoadKind& kind, bool discard, Series& runs) {
    const std::chrono::duration<double> window(options.amount);
    const std::string fate = discard ? "discarded" : "stored";
    CService service(options,
                     discard ? std::vector<std::string>{"--discard"} : std::vector<std::string>{});
    CLoad load(service.Address(), kind);
    // The first batches are made while others are already sent.
    std::this_thread::sleep_for(window / 4);
    const std::int64_t accepted = load.Accepted();
    const double processor = service.ProcessorMs();
    const Clock::time_point begin = Clock::now();
    std::this_thread::sleep_for(window);
    const auto batches = static_cast<double>(load.Accepted() - accepted);
    runs[fate + " rate"].push_back(batches / NanosecondsSince(begin) * kNsPerSecond);
    runs[fate + " time"].push_back((service.ProcessorMs() - processor) / batches);
    service.Finish(load, discard);
}

void CompareRates(const std::string& title, const LoadKind& kind, const Goal& goal,
                  const Options& options, const CResults& results) {
    Series runs;
    for (int i = 0; i < options.runs; ++i) {
        // Alternates which of the two is first, so that a drift hits both.
        for (const bool discard : {i % 2 == 0, i % 2 != 0}) {
            AddRate(options, kind, discard, runs);
        }
    }
    results.Add({title + ", rate", "the same, discarded", "x"},
                Ratios(runs["stored rate"], runs["discarded rate"]), goal);
    for (const std::string fate : {"stored", "discarded"}) {
        results.AddDetail(title + ", " + fate, "/s", runs[fate + " rate"]);
        results.AddDetail(title + ", " + fate + ", service", "ms", runs[fate + " time"]);
    }
}

/// Full batches a second, stored and discarded in turns. The amount is the seconds of each.
/// Settings: the path of the store, and that of the service's program.
void MeasureRate(const Options& options, const CResults& results) {
    CompareRates("batches of four senders", {}, Goal::AtLeast(0.8), options, results);
    CompareRates("batches of one sender", {.senders = 1}, {}, options, results);
    CompareRates("batches without a common URL", {.distinct = true}, {}, options, results);
}

/// Memory of the service while it stores many records; the amount is their number. Settings: those
/// of the rate.
void MeasureMillion(const Options& options, const CResults& results) {
    constexpr int kSamples = 10;
    CService service(options, {"--max-size", "65536"});
    const std::int64_t batches = (options.amount + kFullBatch - 1) / kFullBatch;
    const Clock::time_point begin = Clock::now();
    CLoad load(service.Address(), {.prepared = 0}, batches);
    std::vector<double> most;
    for (int i = 1; i <= kSamples; ++i) {
        while (load.Accepted() < batches * i / kSamples && load.Failed() == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        most.push_back(service.Kib("VmHWM"));
        const std::string records = std::to_string(load.Accepted() * kFullBatch);
        results.AddDetail("memory behind " + records + " records", "KiB", {service.Kib("VmRSS")});
        results.AddDetail("most memory until then", "KiB", {most.back()});
    }
    const double seconds = NanosecondsSince(begin) / kNsPerSecond;
    service.Finish(load, false);
    const auto records = static_cast<double>(batches * kFullBatch);
    const auto bytes = static_cast<double>(std::filesystem::file_size(options.settings.at(0)));
    results.Add({"most memory of the service", "after the first tenth", "x"},
                {most.back() / most.front()}, Goal::AtMost(1.1));
    results.AddDetail("records stored", "", {records});
    results.AddDetail("records stored in a second", "/s", {records / seconds});
    results.AddDetail("size of a stored record", "bytes", {bytes / records});
}

std::int64_t g_nSteps = 0;

// Counts what SQLite executes: a query without an index takes some steps for each record.
int CountSteps(unsigned, void*, void* pStatement, void*) {
    g_nSteps +=
        sqlite3_stmt_status(static_cast<sqlite3_stmt*>(pStatement), SQLITE_STMTSTATUS_VM_STEP, 1);
    return 0;
}

int WatchDatabase(sqlite3* pHandle, char**, const sqlite3_api_routines*) {
    return sqlite3_trace_v2(pHandle, SQLITE_TRACE_PROFILE, &CountSteps, nullptr);
}

using Question = std::function<int(const Context&)>;

class CQueries {
  public:
    CQueries(const Options& options, const CResults& results)
        : m_Options(options),
          m_Results(results),
          m_Database(options.settings.at(0), CTYDatabase::Mode::READ_ONLY) {}

    void AskAll() {
        CTYStatement middle(m_Database,
                            "SELECT playback_id, service_id FROM playbacks "
                            "WHERE id = (SELECT max(id) / 2 FROM playbacks)");
        middle.Step();
        const std::string playback(middle.Text(0));
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(&WatchDatabase));
        AskForRecords(playback, std::string(middle.Text(1)));
        AskForPlaybacks(std::string(middle.Text(1)));
        Ask("show P", m_Options.runs,
            [&](const Context& context) { return ShowPlayback(context, {.playback = playback}); });
        Ask("kpi", m_Options.runs, [](const Context& context) { return PrintKpi(context, {}); });
        Ask("stats", 1, &PrintStats);
        Ask("export", 1, [](const Context& context) { return Export(context, {}); });
    }

  private:
    void AskForRecords(const std::string& playback, const std::string& application) {
        const std::vector<std::pair<const char*, Filter>> all = {
            {"", {.limit = 100}},
            {" --application A", {.application = application, .limit = 100}},
            {" --application UNKNOWN", {.application = "org.example.none", .limit = 100}},
            {" --title UNKNOWN", {.title = "never sent", .limit = 100}},
            {" --playback P", {.playback = playback, .limit = 100}},
            {" --playback UNKNOWN", {.playback = "none", .limit = 100}},
            {" --code START", {.codes = {TY_EVENT_START}, .limit = 100}},
            {" --code 77 (never sent)", {.codes = {77}, .limit = 100}},
            {" --since LAST-1%", {.since = ArrivalAt(0.99), .limit = 100}},
            {" --until FIRST-1%", {.until = ArrivalAt(0.01), .limit = 100}},
            {" --since 50% --until 51% --limit -1",
             {.since = ArrivalAt(0.50), .until = ArrivalAt(0.51)}},
            {" --playback P --code START",
             {.playback = playback, .codes = {TY_EVENT_START}, .limit = 100}},
        };
        for (const auto& [name, filter] : all) {
            Ask(std::string("records") + name, m_Options.runs, [&filter](const Context& context) {
                return PrintRecords(context, {.filter = filter});
            });
        }
    }

    void AskForPlaybacks(const std::string& application) {
        const std::vector<std::pair<const char*, Filter>> all = {
            {"", {.limit = 100}},
            {" --application A", {.application = application, .limit = 100}},
            {" --since LAST-1%", {.since = ArrivalAt(0.99), .limit = 100}},
            {" --limit -1", {}},
        };
        for (const auto& [name, filter] : all) {
            Ask(std::string("playbacks") + name, m_Options.runs, [&filter](const Context& context) {
                return PrintPlaybacks(context, {.filter = filter});
            });
        }
    }

    std::int64_t ArrivalAt(double share) {
        const auto id = static_cast<double>(m_Database.Number("SELECT max(id) FROM entries"));
        return m_Database.Number(("SELECT arrival FROM entries WHERE id = " +
                                  std::to_string(static_cast<std::int64_t>(id * share)))
                                     .c_str());
    }

    void Ask(const std::string& name, int runs, const Question& question) {
        const Format format = name == "export" ? Format::JSONL : Format::TABLE;
        std::ofstream out("/dev/null");
        const Context context{m_Options.settings.at(0), format, out, out, Sink::PROGRAM,
                              ArrivalAt(0.99)};
        std::vector<double> milliseconds;
        g_nSteps = 0;
        for (int i = 0; i < runs; ++i) {
            const Clock::time_point begin = Clock::now();
            if (question(context) != EXIT_OK) {
                throw std::runtime_error("tallyra " + name + " failed");
            }
            milliseconds.push_back(NanosecondsSince(begin) / kNsPerMs);
        }
        m_Results.Add(
            {"tallyra " + name, std::to_string(g_nSteps / runs) + " steps of SQLite", "ms"},
            milliseconds);
    }

    const Options& m_Options;
    const CResults& m_Results;
    CTYDatabase m_Database;
};

/// The queries of the command "tallyra" on the store that the benchmark "million" left.
void MeasureQueries(const Options& options, const CResults& results) {
    CQueries(options, results).AskAll();
}

}  // namespace

int main(int argc, char** argv) {
    return RunBenchmark(
        argc, argv,
        {{"rate", &MeasureRate}, {"million", &MeasureMillion}, {"queries", &MeasureQueries}});
}
