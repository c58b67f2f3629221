// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-rate": measures how many full batches a second the collection service
// accepts, storing and discarding them in turns.

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
#include <map>

namespace {

using Clock = std::chrono::steady_clock;

struct Settings {
    std::string service;
    std::string folder = ".";
    std::string json = "rate.json";
    int runs = 5;
    double seconds = 3;
    double goal = 0.8;
    LoadKind load;
};

/// What one repetition of one kind of service came to.
struct Measured {
    double rate;   ///< accepted batches a second
    double cpuMs;  ///< processor time of the service for a batch
};

class CRate {
  public:
    explicit CRate(const Settings& settings) : m_Settings(settings) {}

    void Repeat() {
        for (int i = 0; i < m_Settings.runs; ++i) {
            // Which of the two comes first changes, so that neither has the better half of a drift.
            for (const bool discard : {i % 2 == 0, i % 2 != 0}) {
                const Measured measured = Measure(discard);
                m_Results[discard].push_back(measured);
                std::printf("  %d %-8s %8.0f batches/s, %.3f ms of the service each\n", i + 1,
                            NameOf(discard), measured.rate, measured.cpuMs);
                std::fflush(stdout);
            }
        }
    }

    /// @return the share of the rate without storing that the rate with storing reaches
    double Report() const {
        nlohmann::json json{{"senders", m_Settings.load.senders},
                            {"distinct", m_Settings.load.distinct},
                            {"records_in_batch", kFullBatch}};
        std::printf("%-10s %9s %9s %9s %16s\n", "", "median/s", "least", "most",
                    "service ms/batch");
        for (const auto& [discard, results] : m_Results) {
            const Summary rate = Of(results, &Measured::rate);
            const Summary cpu = Of(results, &Measured::cpuMs);
            std::printf("%-10s %9.0f %9.0f %9.0f %16.3f\n", NameOf(discard), rate.median,
                        rate.least, rate.most, cpu.median);
            json[NameOf(discard)] = {{"batches_per_second", rate.ToJson()},
                                     {"service_ms_per_batch", cpu.ToJson()}};
        }
        const double share = Of(m_Results.at(false), &Measured::rate).median /
                             Of(m_Results.at(true), &Measured::rate).median;
        std::printf("share      %9.3f (goal %.2f)\n", share, m_Settings.goal);
        json["share"] = share;
        WriteJson(m_Settings.json, json);
        return share;
    }

  private:
    static const char* NameOf(bool discard) { return discard ? "discard" : "store"; }

    static Summary Of(const std::vector<Measured>& results, double Measured::*pValue) {
        std::vector<double> values;
        values.reserve(results.size());
        for (const Measured& measured : results) {
            values.push_back(measured.*pValue);
        }
        return Summary::Of(values);
    }

    Measured Measure(bool discard) {
        const std::string db = m_Settings.folder + "/rate.db";
        std::filesystem::remove(db);
        std::vector<std::string> options{"--rate", "0", "--db", db};
        if (discard) {
            options.emplace_back("--discard");
        }
        CServiceProcess service(m_Settings.service, m_Bus.Address(), options);
        service.WaitUntilReady();
        CLoad load(m_Bus.Address(), m_Settings.load);
        const Measured measured = Watch(service, load);
        load.Stop();
        service.Terminate();
        Check(load, db, discard);
        return measured;
    }

    Measured Watch(const CServiceProcess& service, const CLoad& load) const {
        const std::chrono::duration<double> window(m_Settings.seconds);
        // The first batches are made while others are already sent.
        std::this_thread::sleep_for(window / 4);
        const std::int64_t accepted = load.Accepted();
        const double cpu = ReadProcStat(service.Pid()).cpuSeconds;
        const Clock::time_point begin = Clock::now();
        std::this_thread::sleep_for(window);
        const auto batches = static_cast<double>(load.Accepted() - accepted);
        const std::chrono::duration<double> passed = Clock::now() - begin;
        return {batches / passed.count(),
                (ReadProcStat(service.Pid()).cpuSeconds - cpu) * 1000 / batches};
    }

    // A rate counts only when what was accepted is what is there.
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

    const Settings m_Settings;
    CPrivateBus m_Bus;
    std::map<bool, std::vector<Measured>> m_Results;
};

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    CLI::App app("Measures how fast the collection service accepts batches.");
    app.add_option("--service", settings.service, "The program")->required();
    app.add_option("--folder", settings.folder, "Create its database in this folder");
    app.add_option("--json", settings.json, "Write the results to this file");
    app.add_option("--runs", settings.runs)->check(CLI::Range(1, 1000));
    app.add_option("--seconds", settings.seconds, "Length of each")->check(CLI::PositiveNumber);
    app.add_option("--senders", settings.load.senders)->check(CLI::Range(1, 200));
    app.add_flag("--distinct", settings.load.distinct, "Records have nothing in common");
    app.add_option("--goal", settings.goal, "Exit with status 1 if the share is lower");
    CLI11_PARSE(app, argc, argv);
    CRate rate(settings);
    rate.Repeat();
    return rate.Report() >= settings.goal ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-bench-rate: %s\n", error.what());
    return 2;
}
