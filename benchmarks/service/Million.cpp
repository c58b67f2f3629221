// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-million": measures the memory of the collection service while it
// stores a million records, and the resulting store.

#include "Load.h"
#include "PrivateBus.h"
#include "Proc.h"
#include "Results.h"
#include "ServiceProcess.h"
#include "TYDatabase.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <filesystem>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPeriod{5};

struct Settings {
    std::string service;
    std::string db = "million.db";
    std::string json = "million.json";
    std::int64_t records = 1'000'000;
    int samples = 10;
    /// Allowed ratio of the memory at the end to that of the first sample.
    double growth = 1.1;
};

class CMillion {
  public:
    explicit CMillion(const Settings& settings) : m_Settings(settings) {}

    int Run() {
        for (const char* pSuffix : {"", "-wal", "-shm"}) {
            std::filesystem::remove(m_Settings.db + pSuffix);
        }
        CServiceProcess service(m_Settings.service, m_Bus.Address(),
                                {"--rate", "0", "--db", m_Settings.db, "--max-size", "65536"});
        service.WaitUntilReady();
        const std::int64_t batches = (m_Settings.records + kFullBatch - 1) / kFullBatch;
        LoadKind kind;
        kind.prepared = 0;
        const Clock::time_point begin = Clock::now();
        CLoad load(m_Bus.Address(), kind, batches);
        std::printf("%12s %12s %12s\n", "records", "VmRSS KiB", "VmHWM KiB");
        for (int i = 1; i <= m_Settings.samples; ++i) {
            WaitFor(load, batches * i / m_Settings.samples);
            Sample(service, load);
        }
        const std::chrono::duration<double> passed = Clock::now() - begin;
        load.Stop();
        service.Terminate();
        return Report(passed.count(), batches * kFullBatch);
    }

  private:
    static void WaitFor(const CLoad& load, std::int64_t batches) {
        while (load.Accepted() < batches) {
            if (load.Failed() != 0) {
                throw std::runtime_error("a batch failed");
            }
            std::this_thread::sleep_for(kPeriod);
        }
    }

    void Sample(const CServiceProcess& service, const CLoad& load) {
        const long now = ReadProcKib(service.Pid(), "VmRSS");
        const long most = ReadProcKib(service.Pid(), "VmHWM");
        const std::int64_t records = load.Accepted() * kFullBatch;
        std::printf("%12lld %12ld %12ld\n", static_cast<long long>(records), now, most);
        std::fflush(stdout);
        m_Samples.push_back({{"records", records}, {"rss_kib", now}, {"high_water_kib", most}});
        m_Most.push_back(most);
    }

    int Report(double seconds, std::int64_t expected) const {
        CTYDatabase database(m_Settings.db, CTYDatabase::Mode::READ_ONLY);
        const std::int64_t stored = database.Number("SELECT count(*) FROM records");
        const auto bytes = static_cast<double>(std::filesystem::file_size(m_Settings.db));
        const double grown =
            static_cast<double>(m_Most.back()) / static_cast<double>(m_Most.front());
        std::printf(
            "%lld records in %.1f s, %.0f a second; %.1f bytes each in the store; "
            "memory grew by a factor of %.3f behind the first sample\n",
            static_cast<long long>(stored), seconds, static_cast<double>(stored) / seconds,
            bytes / static_cast<double>(stored), grown);
        WriteJson(m_Settings.json, {{"records", stored},
                                    {"seconds", seconds},
                                    {"bytes", bytes},
                                    {"growth", grown},
                                    {"samples", m_Samples}});
        return stored == expected && grown <= m_Settings.growth ? 0 : 1;
    }

    const Settings m_Settings;
    CPrivateBus m_Bus;
    nlohmann::json m_Samples = nlohmann::json::array();
    std::vector<long> m_Most;
};

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    CLI::App app("Measures the memory of the collection service over many records.");
    app.add_option("--service", settings.service, "The program")->required();
    app.add_option("--db", settings.db, "Create its database here and keep it");
    app.add_option("--json", settings.json, "Write the results to this file");
    app.add_option("--records", settings.records)->check(CLI::PositiveNumber);
    app.add_option("--samples", settings.samples)->check(CLI::Range(2, 1000));
    app.add_option("--growth", settings.growth, "Exit with status 1 if memory grows by more");
    CLI11_PARSE(app, argc, argv);
    return CMillion(settings).Run();
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-bench-million: %s\n", error.what());
    return 2;
}
