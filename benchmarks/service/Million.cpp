// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures the memory of the collection service while it stores a million records, and the
// resulting store.

#include "Load.h"
#include "PrivateBus.h"
#include "ServiceBenchmarks.h"
#include "ServiceProcess.h"
#include "TYDatabase.h"
#include "Timing.h"

namespace {

constexpr int kSamples = 10;
constexpr std::chrono::milliseconds kPeriod{5};

void WaitFor(const CLoad& load, std::int64_t batches) {
    while (load.Accepted() < batches) {
        if (load.Failed() != 0) {
            throw std::runtime_error("a batch failed");
        }
        std::this_thread::sleep_for(kPeriod);
    }
}

void Report(const std::string& db, std::int64_t expected, double seconds, CResults& results) {
    CTYDatabase database(db, CTYDatabase::Mode::READ_ONLY);
    const std::int64_t stored = database.Number("SELECT count(*) FROM records");
    if (stored != expected) {
        throw std::runtime_error(std::to_string(stored) + " records are stored instead of " +
                                 std::to_string(expected));
    }
    const auto records = static_cast<double>(stored);
    const auto bytes = static_cast<double>(std::filesystem::file_size(db));
    results.AddDetail("records stored", "", {records});
    results.AddDetail("records stored in a second", "/s", {records / seconds});
    results.AddDetail("size of a stored record", "bytes", {bytes / records});
}

}  // namespace

void MeasureMillion(const Options& options, CResults& results) {
    const std::string db = options.settings.at("db");
    for (const char* pSuffix : {"", "-wal", "-shm"}) {
        std::filesystem::remove(db + pSuffix);
    }
    CPrivateBus bus;
    CServiceProcess service(options.settings.at("service"), bus.Address(),
                            {"--rate", "0", "--db", db, "--max-size", "65536"});
    service.WaitUntilReady();
    const std::int64_t batches = (options.amount + kFullBatch - 1) / kFullBatch;
    const Clock::time_point begin = Clock::now();
    CLoad load(bus.Address(), {.prepared = 0}, batches);
    std::vector<double> most;
    for (int i = 1; i <= kSamples; ++i) {
        WaitFor(load, batches * i / kSamples);
        const std::string records = std::to_string(load.Accepted() * kFullBatch);
        most.push_back(static_cast<double>(ReadProcKib(service.Pid(), "VmHWM")));
        results.AddDetail("memory behind " + records + " records", "KiB",
                          {static_cast<double>(ReadProcKib(service.Pid(), "VmRSS"))});
        results.AddDetail("most memory until then", "KiB", {most.back()});
    }
    const double seconds = NanosecondsSince(begin) / kNsPerSecond;
    load.Stop();
    service.Terminate();
    results.Add({"most memory of the service", "after the first tenth", "x"},
                {most.back() / most.front()}, Goal::AtMost(1.1));
    Report(db, batches * kFullBatch, seconds, results);
}
