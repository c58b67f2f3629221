// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-database [RECORDS]": stores the records of a fleet in a PostgreSQL
// server of its own, and prints how fast that is and how many bytes a record takes.

#include "FleetDevice.h"
#include "PrivatePostgres.h"
#include "TYPostgresDatabase.h"
#include "TYPostgresReader.h"
#include "TYWallClock.h"

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>

namespace {

constexpr int kDevices = 1000;
constexpr std::size_t kBatchesOfCall = 128;
constexpr std::int64_t kMillion = 1'000'000;

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double OwnProcessorTime() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

// Of the process that serves this program.
double ProcessorTimeOf(int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text{std::istreambuf_iterator<char>(file), {}};
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < 11; ++i) {
        fields >> skipped;
    }
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

/// The times that calls of Add took.
struct Times {
    double elapsed = 0;
    double own = 0;
};

Times AddAll(CTYPostgresDatabase& database, std::int64_t records) {
    std::deque<CFleetDevice> devices;
    for (int i = 0; i < kDevices; ++i) {
        devices.emplace_back(i);
    }
    Times times;
    std::size_t device = 0;
    for (std::int64_t done = 0; done < records;) {
        std::vector<TYForwardedBatch> batches;
        for (std::size_t i = 0; i < kBatchesOfCall; ++i) {
            batches.push_back(devices[device++ % kDevices].Next(WallClockNow()));
        }
        const double own = OwnProcessorTime();
        const auto begin = std::chrono::steady_clock::now();
        database.Add(batches);
        times.elapsed +=
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        times.own += OwnProcessorTime() - own;
        done += static_cast<std::int64_t>(kBatchesOfCall * CFleetDevice::kBatch);
    }
    return times;
}

void PrintBytes(pqxx::connection& connection, std::int64_t records) {
    pqxx::nontransaction reading(connection);
    for (const std::string table : {"entries", "contexts", "playbacks", "sources"}) {
        const pqxx::row row = reading.exec1(
            "SELECT sum(pg_table_size(oid)), sum(pg_indexes_size(oid)) FROM pg_class "
            "WHERE oid = '" +
            table +
            "'::regclass OR oid IN (SELECT inhrelid FROM pg_inherits "
            "WHERE inhparent = '" +
            table + "'::regclass)");
        const double each = 1.0 / static_cast<double>(records);
        std::printf("%-10s %7.1f bytes a record, and %5.1f of indexes\n", table.c_str(),
                    row[0].as<double>() * each, row[1].as<double>() * each);
    }
}

// What the rows of playbacks take without those that later ones have replaced.
void PrintLiveBytes(pqxx::connection& connection, std::int64_t records) {
    const double bytes = pqxx::nontransaction(connection)
                             .exec1("SELECT sum(pg_column_size(p)) FROM playbacks p")[0]
                             .as<double>();
    std::printf("%-10s %7.1f bytes a record in current rows\n", "playbacks",
                bytes / static_cast<double>(records));
}

void PrintReading(const std::string& url) {
    for (const bool isWhole : {false, true}) {
        CTYPostgresReader reader(url);
        std::int64_t playbacks = 0;
        const auto begin = std::chrono::steady_clock::now();
        reader.ScanPlaybacks(
            {}, WallClockNow(),
            isWhole ? CTYPostgresReader::Detail::TIMELINES : CTYPostgresReader::Detail::FIGURES,
            [&](const TYAnalyzedPlayback&) { ++playbacks; });
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
        std::printf("%.0f playbacks a second read%s\n",
                    static_cast<double>(playbacks) / time.count(),
                    isWhole ? " with their timelines" : "");
    }
}

void Measure(std::int64_t wanted) {
    const CPrivatePostgres server(CPrivatePostgres::Disk::WAITED);
    CTYPostgresDatabase database(server.Url());
    pqxx::connection connection(server.Url());
    const int backend = pqxx::nontransaction(connection)
                            .exec1(
                                "SELECT pid FROM pg_stat_activity "
                                "WHERE application_name = 'tallyra-collect'")[0]
                            .as<int>();
    const double before = ProcessorTimeOf(backend);
    const Times times = AddAll(database, wanted);
    const double served = ProcessorTimeOf(backend) - before;
    const auto records = pqxx::nontransaction(connection)
                             .exec1("SELECT count(*) FROM entries")[0]
                             .as<std::int64_t>();
    const auto count = static_cast<double>(records);
    std::printf("%lld records: %.0f a second, %.0f for each second of processor time\n",
                static_cast<long long>(records), count / times.elapsed,
                count / (times.own + served));
    std::printf("processor time: %.2f s here, %.2f s in PostgreSQL's process (1 : %.2f)\n",
                times.own, served, served / times.own);
    PrintBytes(connection, records);
    PrintLiveBytes(connection, records);
    PrintReading(server.Url());
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Measure(argc > 1 ? std::strtoll(argv[1], nullptr, 10) : kMillion);
    } catch (const std::exception& error) {
        std::cerr << "tallyra-bench-database: " << error.what() << "\n";
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
