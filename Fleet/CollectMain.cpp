// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FleetOptions.h"
#include "TYBackoff.h"
#include "TYCollector.h"
#include "TYFleetStore.h"
#include "TYLog.h"
#include "TYPostgresDatabase.h"
#include "TYRecordStream.h"
#include "TYSubjects.h"

#include <systemd/sd-daemon.h>
#include <CLI/CLI.hpp>

#include <sys/stat.h>
#include <sysexits.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>

#define TY_LOG_TAG "TALLYRA_FLEET"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kShortestPause{500};
constexpr milliseconds kLongestPause{5000};

struct Settings {
    std::string db;
    TYNatsOptions nats{.name = "tallyra-collect"};
    CTYRecordStream::Options stream;
    int keepDays = 90;
    int maxSizeMb = 4096;
};

void AddOptions(CLI::App& app, Settings& settings) {
    app.add_option("--db", settings.db,
                   "Store records in this SQLite file, or in the database at a postgresql:// URL")
        ->envname("TALLYRA_DB")
        ->required()
        ->check(NotEmpty());
    AddNatsOptions(app, settings.nats);
    app.add_option("--keep-days", settings.keepDays, "Drop records after this many days")
        ->check(CLI::Range(1, 3650))
        ->capture_default_str();
    app.add_option("--max-size", settings.maxSizeMb,
                   "Drop old records when the SQLite file exceeds this many MiB")
        ->check(CLI::Range(1, 1 << 20))
        ->capture_default_str();
    app.add_option("--replicas", settings.stream.replicas,
                   "Make streams with this many copies of each message, on as many servers")
        ->check(CLI::Range(1, 5))
        ->capture_default_str();
    app.add_option("--stream-bytes", settings.stream.streamBytes,
                   "Make a stream that takes this many bytes; beyond, devices wait")
        ->check(From(1))
        ->capture_default_str();
    app.add_option("--batch", settings.stream.atOnce, "Store this many messages in one transaction")
        ->check(CLI::Range(1, 1024))
        ->capture_default_str();
}

std::optional<int> Parse(int argc, char** argv, Settings& settings) {
    CLI::App app("Stores the records of many devices in one database.", "tallyra-collect");
    app.set_version_flag("--version", TALLYRA_VERSION);
    AddOptions(app, settings);
    return ParseArguments(app, argc, argv);
}

/// The database is another program's, or of a newer version. Starting again does not help.
class UnusableDatabase : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

std::unique_ptr<ITYFleetDatabase> OpenFile(const Settings& settings) {
    const TYStoreLimits limits{std::chrono::hours(24 * settings.keepDays),
                               std::int64_t{settings.maxSizeMb} << 20};
    try {
        return std::make_unique<CTYFleetStore>(settings.db, limits);
    } catch (const CTYDatabaseError& error) {
        if (error.Kind() == SQLITE_MISMATCH || error.Kind() == SQLITE_NOTADB) {
            throw UnusableDatabase(settings.db + ": " + error.what());
        }
        throw;
    }
}

std::unique_ptr<ITYFleetDatabase> OpenDatabase(const Settings& settings) {
    if (settings.db.starts_with("postgresql://") || settings.db.starts_with("postgres://")) {
        return std::make_unique<CTYPostgresDatabase>(
            settings.db, TYPostgresOptions{.keepDays = settings.keepDays});
    }
    return OpenFile(settings);
}

/// Collects over one connection after the other.
void Serve(const Settings& settings, ITYFleetDatabase& database) {
    CTYBackoff backoff(kShortestPause, kLongestPause);
    CTYLogOnce log;
    while (!IsStopRequested()) {
        try {
            CTYNatsLink link(settings.nats);
            link.Subscribe(TYSubjects::kAllAsks, TYSubjects::kConsumer);
            CTYRecordStream stream(link, settings.stream);
            backoff.Reset();
            log.Reset();
            TY_LOG_INFO("collecting");
            sd_notify(0, "READY=1");
            CTYCollector(database, link, stream, IsStopRequested, Pause).Run();
        } catch (const CTYLinkLost& error) {
            log.Log(error.what());
            Pause(backoff.Next());
        }
    }
}

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    if (const std::optional<int> status = Parse(argc, argv, settings)) {
        return *status;
    }
    // Records show what people watch, so no other user gets access.
    umask(umask(0) | (S_IWGRP | S_IRWXO));
    CatchStopSignals();
    const CTYNatsLibrary library;
    std::unique_ptr<ITYFleetDatabase> pDatabase;
    CTYBackoff backoff(kShortestPause, kLongestPause);
    CTYLogOnce log;
    while (pDatabase == nullptr && !IsStopRequested()) {
        try {
            pDatabase = OpenDatabase(settings);
        } catch (const CTYDatabaseUnavailable& error) {
            log.Log(error.what());
            Pause(backoff.Next());
        }
    }
    if (pDatabase != nullptr) {
        Serve(settings, *pDatabase);
    }
    return EX_OK;
} catch (const UnusableDatabase& error) {
    std::fprintf(stderr, "tallyra-collect: %s\n", error.what());
    return EX_CONFIG;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-collect: %s\n", error.what());
    return EXIT_FAILURE;
}
