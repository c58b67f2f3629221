// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-make-store FILE RECORDS [SEED]": fills a new store with generated playbacks
// of the last 30 days, one after another, and prints what it holds.

#include "Sessions.h"
#include "TYStore.h"
#include "TYWallClock.h"

#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace {

constexpr std::int64_t kMillion = 1'000'000;
constexpr std::int64_t kNsPerDay = 86'400'000 * kMillion;
constexpr int kDays = 30;
constexpr int kRecordsOfPlayback = 36;

// The library sends up to 36 records in a batch.
constexpr std::size_t kBatch = 36;

void AddBatches(CTYStore& store, const Session& session, int number) {
    const std::span records(session.records);
    for (std::size_t i = 0; i < records.size(); i += kBatch) {
        const auto part = records.subspan(i, std::min(kBatch, records.size() - i));
        TYBatch batch;
        batch.sender = {"bus", ":1." + std::to_string(number / 100), 1000 + number % 3, 4711};
        batch.arrival = part.back().time.sec * kMillion * 1000 + part.back().time.nsec;
        batch.records.assign(part.begin(), part.end());
        batch.urls.resize(part.size(), session.url);
        store.Add(batch);
    }
}

void Fill(const std::string& path, std::int64_t records, std::uint64_t seed) {
    CTYStore store(path);
    store.Database().Execute("PRAGMA synchronous = OFF");
    CDice dice(seed);
    const std::int64_t begin = WallClockNow() - kDays * kNsPerDay;
    const std::int64_t apart = kDays * kNsPerDay / (records / kRecordsOfPlayback + 1);
    std::int64_t left = records;
    int number = 0;
    for (; left > 0; ++number) {
        Session session = MakeSession(dice, number, (begin + number * apart) / kMillion);
        if (static_cast<std::int64_t>(session.records.size()) > left) {
            session.records.resize(static_cast<std::size_t>(left));
        }
        left -= static_cast<std::int64_t>(session.records.size());
        AddBatches(store, session, number);
    }
    std::cout << number << " playbacks, " << records << " records, seed " << seed << "\n";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || std::filesystem::exists(argv[1])) {
        std::cerr << "Usage: tallyra-make-store NEW-FILE RECORDS [SEED]\n";
        return EXIT_FAILURE;
    }
    try {
        Fill(argv[1], std::strtoll(argv[2], nullptr, 10),
             argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1);
    } catch (const std::exception& error) {
        std::cerr << "tallyra-make-store: " << error.what() << "\n";
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
