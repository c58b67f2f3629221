// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-service", and its benchmark of the rate: how many full batches a
// second the collection service accepts, storing and discarding them in turns.

#include "Load.h"
#include "PrivateBus.h"
#include "ServiceBenchmarks.h"
#include "ServiceProcess.h"
#include "TYDatabase.h"
#include "Timing.h"

namespace {

class CRate {
  public:
    explicit CRate(const Options& options) : m_Options(options) {}

    void Compare(const std::string& title, const LoadKind& kind, const Goal& goal,
                 CResults& results) {
        Series runs;
        for (int i = 0; i < m_Options.runs; ++i) {
            // Alternates which of the two is first, so that a drift hits both.
            for (const bool discard : {i % 2 == 0, i % 2 != 0}) {
                Measure(kind, discard, runs);
            }
        }
        results.Add({title + ", rate", "the same, discarded", "x"},
                    Ratios(runs["stored rate"], runs["discarded rate"]), goal);
        for (const std::string fate : {"stored", "discarded"}) {
            results.AddDetail(title + ", " + fate, "/s", runs[fate + " rate"]);
            results.AddDetail(title + ", " + fate + ", service", "ms", runs[fate + " time"]);
        }
    }

  private:
    void Measure(const LoadKind& kind, bool discard, Series& runs) {
        const std::string db = m_Options.settings.at("db");
        std::filesystem::remove(db);
        std::vector<std::string> arguments{"--rate", "0", "--db", db};
        if (discard) {
            arguments.emplace_back("--discard");
        }
        CServiceProcess service(m_Options.settings.at("service"), m_Bus.Address(), arguments);
        service.WaitUntilReady();
        CLoad load(m_Bus.Address(), kind);
        Watch(service, load, discard ? "discarded" : "stored", runs);
        load.Stop();
        service.Terminate();
        Check(load, db, discard);
    }

    void Watch(const CServiceProcess& service, const CLoad& load, const std::string& fate,
               Series& runs) const {
        const std::chrono::duration<double> window(m_Options.amount);
        // The first batches are made while others are already sent.
        std::this_thread::sleep_for(window / 4);
        const std::int64_t accepted = load.Accepted();
        const double cpu = ReadProcStat(service.Pid()).cpuSeconds;
        const Clock::time_point begin = Clock::now();
        std::this_thread::sleep_for(window);
        const auto batches = static_cast<double>(load.Accepted() - accepted);
        runs[fate + " rate"].push_back(batches / NanosecondsSince(begin) * kNsPerSecond);
        runs[fate + " time"].push_back((ReadProcStat(service.Pid()).cpuSeconds - cpu) * 1000 /
                                       batches);
    }

    // A rate counts only if the store holds what was accepted.
    static void Check(const CLoad& load, const std::string& db, bool discard) {
        CTYDatabase database(db, CTYDatabase::Mode::READ_ONLY);
        const std::int64_t stored = database.Number("SELECT count(*) FROM records");
        const std::int64_t expected = discard ? 0 : load.Accepted() * kFullBatch;
        if (load.Failed() != 0 || stored != expected) {
            throw std::runtime_error(std::to_string(load.Failed()) + " batches failed; " +
                                     std::to_string(stored) + " records are stored instead of " +
                                     std::to_string(expected));
        }
    }

    const Options& m_Options;
    CPrivateBus m_Bus;
};

}  // namespace

void MeasureRate(const Options& options, CResults& results) {
    CRate rate(options);
    rate.Compare("batches of four senders", {}, Goal::AtLeast(0.8), results);
    rate.Compare("batches of one sender", {.senders = 1}, {}, results);
    rate.Compare("batches without a common URL", {.distinct = true}, {}, results);
}

int main(int argc, char** argv) {
    return RunBenchmark(
        argc, argv,
        {{"rate", &MeasureRate}, {"million", &MeasureMillion}, {"queries", &MeasureQueries}});
}
