// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-make-store FILE RECORDS [SEED [DAYS [RATE]]]": fills a new store with
// generated playbacks of the last 30 days, one after another, and prints what it holds. With DAYS,
// they are of the last DAYS days, and the store may exist: then it grows. With RATE, it grows by
// RATE records a second, like that of a device in use.

#include "Sessions.h"
#include "TYStore.h"
#include "TYWallClock.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <thread>

namespace {

constexpr std::int64_t kMillion = 1'000'000;
constexpr std::int64_t kNsPerDay = 86'400'000 * kMillion;
constexpr int kRecordsOfPlayback = 36;

// The library sends up to 36 records in a batch.
constexpr std::size_t kBatch = 36;

struct Wish {
    std::string path;
    std::int64_t records = 0;
    std::uint64_t seed = 1;
    std::int64_t days = 30;
    double rate = 0;  ///< records a second; 0: at once
};

void AddBatches(CTYStore& store, const Session& session, int number, double rate) {
    const std::span records(session.records);
    for (std::size_t i = 0; i < records.size(); i += kBatch) {
        const auto part = records.subspan(i, std::min(kBatch, records.size() - i));
        TYBatch batch;
        batch.sender = {"bus", ":1." + std::to_string(number / 100), 1000 + number % 3, 4711};
        batch.arrival = part.back().time.sec * kMillion * 1000 + part.back().time.nsec;
        batch.records.assign(part.begin(), part.end());
        batch.urls.resize(part.size(), session.url);
        store.Add(batch);
        if (rate > 0) {
            std::this_thread::sleep_for(
                std::chrono::duration<double>(static_cast<double>(part.size()) / rate));
        }
    }
}

void Fill(const Wish& wish) {
    CTYStore store(wish.path);
    store.Database().Execute("PRAGMA synchronous = OFF");
    CDice dice(wish.seed);
    const std::int64_t begin = WallClockNow() - wish.days * kNsPerDay;
    const std::int64_t apart = wish.days * kNsPerDay / (wish.records / kRecordsOfPlayback + 1);
    std::int64_t left = wish.records;
    int number = 0;
    for (; left > 0; ++number) {
        Session session = MakeSession(dice, number, (begin + number * apart) / kMillion);
        if (static_cast<std::int64_t>(session.records.size()) > left) {
            session.records.resize(static_cast<std::size_t>(left));
        }
        left -= static_cast<std::int64_t>(session.records.size());
        AddBatches(store, session, number, wish.rate);
    }
    std::cout << number << " playbacks, " << wish.records << " records, seed " << wish.seed << "\n";
}

Wish Parse(int argc, char** argv) {
    Wish wish{argv[1], std::strtoll(argv[2], nullptr, 10)};
    wish.seed = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : wish.seed;
    wish.days = argc > 4 ? std::strtoll(argv[4], nullptr, 10) : wish.days;
    wish.rate = argc > 5 ? std::strtod(argv[5], nullptr) : wish.rate;
    return wish;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || (argc < 5 && std::filesystem::exists(argv[1]))) {
        std::cerr << "Usage: tallyra-make-store NEW-FILE RECORDS [SEED]\n"
                     "       tallyra-make-store FILE RECORDS SEED DAYS [RATE]\n";
        return EXIT_FAILURE;
    }
    try {
        Fill(Parse(argc, argv));
    } catch (const std::exception& error) {
        std::cerr << "tallyra-make-store: " << error.what() << "\n";
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
