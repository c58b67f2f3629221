// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Measures creating a collector until it is ready to send, and deleting it, against a bare bus
// connection that is opened and closed, without and with the calls that the library has to make.

#include "Benchmarks.h"
#include "Stage.h"

#include "appcat.h"
#include "connection.h"
#include "regdb.h"

namespace {

void ConnectAndCall() {
    CBareLoop connection;
    connection.FindService();
    connection.Ask("Kick", "Kick");
    connection.FindService();
    connection.Ask("GetPolicyInfo", "org.example.player");
}

// The next three repeat the calls to the platform that the library makes for a collector.
void LookUpPackage() {
    appcat_appinfo_h pInfo = nullptr;
    if (appcat_appinfo_get_usr_appinfo("org.example.player", getuid(), &pInfo) == 0) {
        appcat_appinfo_destroy_appinfo(pInfo);
    }
}

void MonitorNetwork() {
    connection_h pConnection = nullptr;
    int type = 0;
    if (connection_create(&pConnection) != 0) {
        throw std::runtime_error("the platform has no network state");
    }
    connection_set_network_monitor_cb(
        pConnection, [](connection_error_e, char*, void*) {}, nullptr);
    connection_get_type(pConnection, &type);
    connection_destroy(pConnection);
}

void WatchSettings() {
    const regdb_key_changed_cb nothing = [](keynode_t*, void*) {};
    int value = 0;
    regdb_get_bool("db/tallyra/log_on", &value);
    regdb_notify_key_changed("db/tallyra/log_on", nothing, nullptr);
    regdb_ignore_key_changed("db/tallyra/log_on", nothing);
}

double MillisecondsSince(Clock::time_point begin) {
    return NanosecondsSince(begin) / kNsPerMs;
}

// The policy is the last reply before the sender thread starts.
void TimeCollector(const CStage& stage, Series& samples) {
    const std::atomic<std::int64_t>& policies = stage.Sink().Count().policies;
    const std::int64_t before = policies;
    const Clock::time_point begin = Clock::now();
    std::unique_ptr<ITYDataCollector> collector(
        GetTYDataCollectorInstance("org.example.player", TY_PLAYER_NATIVE));
    samples["ready for events"].push_back(MillisecondsSince(begin));
    Await([&] { return policies > before; }, "the collector is not ready");
    samples["ready to send"].push_back(MillisecondsSince(begin));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const Clock::time_point end = Clock::now();
    collector.reset();
    samples["delete while connected"].push_back(MillisecondsSince(end));
}

/// @return milliseconds of each part in each of a run's lives
Series Repeat(const CStage& stage, int lives) {
    Series samples;
    const auto time = [&samples](const char* pPart, void (*pSteps)()) {
        const Clock::time_point begin = Clock::now();
        pSteps();
        samples[pPart].push_back(MillisecondsSince(begin));
    };
    for (int i = 0; i < lives; ++i) {
        time("bare connection", [] { const CBareLoop connection; });
        time("its calls too", &ConnectAndCall);
        TimeCollector(stage, samples);
        time("the platform's package", &LookUpPackage);
        time("the platform's network", &MonitorNetwork);
        time("the platform's settings", &WatchSettings);
    }
    return samples;
}

void Report(std::map<std::string, Series>& parts, const CResults& results) {
    const auto medians = [&parts](const char* pPart) { return parts[pPart]["median"]; };
    const auto compare = [&](const char* pWhat, const char* pPart) {
        results.Add({pWhat, "bare connection, made and closed", "x"},
                    Ratios(medians(pPart), medians("bare connection")), Goal::AtMost(2));
    };
    compare("construct to ready for events", "ready for events");
    results.Add({"construct to ready to send", "the same with the same calls", "x"},
                Ratios(medians("ready to send"), medians("its calls too")));
    compare("construct to ready to send", "ready to send");
    compare("delete while connected", "delete while connected");
    results.Add({"delete while connected, p99", "", "ms"}, parts["delete while connected"]["p99"],
                Goal::AtMost(50));
    for (const char* pPart : {"bare connection", "its calls too", "ready for events",
                              "ready to send", "delete while connected", "the platform's package",
                              "the platform's network", "the platform's settings"}) {
        results.AddDetail(pPart, "ms", medians(pPart));
        results.AddPoint("life", pPart, medians(pPart));
    }
}

}  // namespace

void MeasureLife(const Options& options, const CResults& results) {
    const CStage stage;
    std::map<std::string, Series> parts;
    Repeat(stage, options.amount / 4 + 1);
    for (int run = 0; run < options.runs; ++run) {
        for (const auto& [part, samples] : Repeat(stage, options.amount)) {
            AddPercentiles(samples, parts[part]);
        }
    }
    Report(parts, results);
}
