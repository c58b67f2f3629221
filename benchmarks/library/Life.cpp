// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures creating a collector until it is ready to send, and deleting it, against a bare bus
// connection that is opened and closed, without and with the calls that the library has to make.

#include "Benchmarks.h"

#include "BareLoop.h"
#include "Stage.h"

#include "appcat.h"
#include "connection.h"
#include "regdb.h"

#include <unistd.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

/// The result of one run, in milliseconds.
struct Run {
    Percentiles connection;  ///< made and closed
    Percentiles calls;       ///< the same, and the calls that the library makes in between
    Percentiles made;        ///< the factory's return
    Percentiles ready;       ///< from before the factory's call to the service's policy
    Percentiles deleted;
    Percentiles package;   ///< look-up by the platform, as in the factory
    Percentiles network;   ///< the platform's handle with its monitor, made and closed
    Percentiles settings;  ///< the key read once, watched and let go
};

/// The samples of a run.
struct Samples {
    std::vector<double> connection;
    std::vector<double> calls;
    std::vector<double> made;
    std::vector<double> ready;
    std::vector<double> deleted;
    std::vector<double> package;
    std::vector<double> network;
    std::vector<double> settings;
};

double Since(Clock::time_point begin) {
    return Milliseconds(Clock::now() - begin).count();
}

double TimeConnection() {
    const Clock::time_point begin = Clock::now();
    { const CBareLoop connection; }
    return Since(begin);
}

double TimeCalls() {
    const Clock::time_point begin = Clock::now();
    {
        CBareLoop connection;
        connection.FindService();
        connection.Ask("Kick", "Kick");
        connection.FindService();
        connection.Ask("GetPolicyInfo", "org.example.player");
    }
    return Since(begin);
}

// Repeats the calls to the platform that the library makes for a collector.
double TimePackage() {
    const Clock::time_point begin = Clock::now();
    appcat_appinfo_h pInfo = nullptr;
    if (appcat_appinfo_get_usr_appinfo("org.example.player", getuid(), &pInfo) == 0) {
        appcat_appinfo_destroy_appinfo(pInfo);
    }
    return Since(begin);
}

double TimeNetwork() {
    const Clock::time_point begin = Clock::now();
    connection_h pConnection = nullptr;
    int type = 0;
    if (connection_create(&pConnection) != 0) {
        throw std::runtime_error("the platform has no network state");
    }
    connection_set_network_monitor_cb(
        pConnection, [](connection_error_e, char*, void*) {}, nullptr);
    connection_get_type(pConnection, &type);
    connection_destroy(pConnection);
    return Since(begin);
}

double TimeSettings() {
    const Clock::time_point begin = Clock::now();
    const regdb_key_changed_cb nothing = [](keynode_t*, void*) {};
    int value = 0;
    regdb_get_bool("db/tallyra/log_on", &value);
    regdb_notify_key_changed("db/tallyra/log_on", nothing, nullptr);
    regdb_ignore_key_changed("db/tallyra/log_on", nothing);
    return Since(begin);
}

// The policy is the last reply before the sender thread starts.
void TimeCollector(const CStage& stage, Samples& samples) {
    const std::atomic<std::int64_t>& policies = stage.Sink().Count().policies;
    const std::int64_t before = policies;
    const Clock::time_point begin = Clock::now();
    std::unique_ptr<ITYDataCollector> collector(
        GetTYDataCollectorInstance("org.example.player", TY_PLAYER_NATIVE));
    samples.made.push_back(Since(begin));
    Await([&] { return policies > before; }, "the collector is not ready");
    samples.ready.push_back(Since(begin));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const Clock::time_point end = Clock::now();
    collector.reset();
    samples.deleted.push_back(Since(end));
}

Run Repeat(const CStage& stage, int lives) {
    Samples samples;
    for (int i = 0; i < lives; ++i) {
        samples.connection.push_back(TimeConnection());
        samples.calls.push_back(TimeCalls());
        TimeCollector(stage, samples);
        samples.package.push_back(TimePackage());
        samples.network.push_back(TimeNetwork());
        samples.settings.push_back(TimeSettings());
    }
    return {Percentiles::Of(samples.connection), Percentiles::Of(samples.calls),
            Percentiles::Of(samples.made),       Percentiles::Of(samples.ready),
            Percentiles::Of(samples.deleted),    Percentiles::Of(samples.package),
            Percentiles::Of(samples.network),    Percentiles::Of(samples.settings)};
}

void Report(const std::vector<Run>& runs, CResults& results) {
    const auto median = [](Percentiles Run::*pMember) {
        return [pMember](const Run& run) { return (run.*pMember).median; };
    };
    const auto p99 = [](Percentiles Run::*pMember) {
        return [pMember](const Run& run) { return (run.*pMember).p99; };
    };
    results.Add({"construct to ready for events", "bare connection, made and closed", "x"},
                Ratios(Each(runs, median(&Run::made)), Each(runs, median(&Run::connection))),
                Goal::AtMost(2));
    results.Add({"construct to ready to send", "the same with the same calls", "x"},
                Ratios(Each(runs, median(&Run::ready)), Each(runs, median(&Run::calls))));
    results.Add({"construct to ready to send", "bare connection, made and closed", "x"},
                Ratios(Each(runs, median(&Run::ready)), Each(runs, median(&Run::connection))),
                Goal::AtMost(2));
    results.Add({"delete while connected", "bare connection, made and closed", "x"},
                Ratios(Each(runs, median(&Run::deleted)), Each(runs, median(&Run::connection))),
                Goal::AtMost(2));
    results.Add({"delete while connected, p99", "", "ms"}, Each(runs, p99(&Run::deleted)),
                Goal::AtMost(50));
    for (const auto& [name, pMember] :
         {std::pair{"bare connection", &Run::connection}, std::pair{"its calls too", &Run::calls},
          std::pair{"ready for events", &Run::made}, std::pair{"ready to send", &Run::ready},
          std::pair{"delete while connected", &Run::deleted},
          std::pair{"the platform's package", &Run::package},
          std::pair{"the platform's network", &Run::network},
          std::pair{"the platform's settings", &Run::settings}}) {
        results.Add({name, "", "ms", true}, Each(runs, median(pMember)));
        results.AddPoint("life", name, Each(runs, median(pMember)));
    }
}

}  // namespace

void MeasureLife(const Options& options, CResults& results) {
    const CStage stage;
    std::vector<Run> runs;
    runs.reserve(static_cast<std::size_t>(options.runs));
    Repeat(stage, options.amount / 4 + 1);
    for (int run = 0; run < options.runs; ++run) {
        runs.push_back(Repeat(stage, options.amount));
    }
    Report(runs, results);
}
