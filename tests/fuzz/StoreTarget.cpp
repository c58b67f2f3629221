// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "store": the service opens a damaged store, replaces it if needed, and then stores
// batches.
//
// The input is a list of changes to the files of a store that was killed: each takes four bytes,
// the offset and the new byte. Offsets behind the database concern its log.

#include "TYStoreKeeper.h"
#include "Target.h"
#include "TemporaryFolder.h"

#include <chrono>
#include <string>
#include <thread>

namespace {

constexpr int kMaxSteps = 10'000;

TYBatch BatchNumber(int number) {
    TYMediaData record{};
    record.event = static_cast<std::uint8_t>(number);
    CopyText(record.playbackID, std::to_string(number % 5).c_str());
    CopyText(record.serviceID, number % 2 == 0 ? "even" : "odd");
    TYBatch batch;
    batch.sender = {"bus", ":1." + std::to_string(number % 3), 1000, 1};
    batch.arrival = number;
    batch.records.assign(12, record);
    batch.urls.assign(12, "film" + std::to_string(number % 7));
    return batch;
}

struct Files {
    std::string database;
    std::string log;
};

Files MakeFiles() {
    const CTemporaryFolder folder;
    const std::string path = folder.Path() / "t.db";
    CTYStoreKeeper keeper(path, {});
    for (int i = 0; i < 40; ++i) {
        Require(keeper.Add(BatchNumber(i)), "a new store takes batches");
    }
    keeper.Reopen();
    Require(keeper.Add(BatchNumber(40)), "a store takes batches");
    return {folder.Read("t.db"), folder.Read("t.db-wal")};
}

Files Change(Files files, const std::uint8_t* pData, std::size_t size) {
    for (; size >= 4; pData += 4, size -= 4) {
        const std::size_t offset = (pData[0] | pData[1] << 8 | pData[2] << 16) %
                                   (files.database.size() + files.log.size());
        const bool isInLog = offset >= files.database.size();
        std::string& text = isInLog ? files.log : files.database;
        text[isInLog ? offset - files.database.size() : offset] = static_cast<char>(pData[3]);
    }
    return files;
}

// Housekeeping until the check and the recovery have ended.
void Finish(CTYStoreKeeper& keeper) {
    int steps = 0;
    for (bool isMore = true; isMore; ++steps) {
        Require(steps < kMaxSteps, "housekeeping ends");
        for (int i = 0; i < 100 && !keeper.HasGrown(); ++i) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        isMore = keeper.Prune() || keeper.HasGrown();
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size) {
    static const Files original = MakeFiles();
    const CTemporaryFolder folder;
    const Files files = Change(original, pData, size);
    folder.Write("t.db", files.database);
    folder.Write("t.db-wal", files.log);
    CTYStoreKeeper keeper(folder.Path() / "t.db", {});
    const bool isUsable = keeper.Add(BatchNumber(41));
    if (!isUsable && keeper.Unusable()) {
        Require(folder.Read("t.db") == files.database, "another's file is not changed");
        return 0;
    }
    Finish(keeper);
    keeper.Policy("even");
    Require(keeper.Add(BatchNumber(42)), "batches are stored after the housekeeping");
    return 0;
}
