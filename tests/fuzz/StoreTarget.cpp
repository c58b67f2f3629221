// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "store": the service opens a store whose file and log are damaged anywhere, stores a batch
// or refuses it, and recovers what it can.

#include "Bytes.h"
#include "TYStoreKeeper.h"
#include "Target.h"
#include "TemporaryFolder.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>

namespace {

constexpr int kMostSteps = 10'000;
// A new folder from time to time, because damaged files are kept.
constexpr int kInputsForAFolder = 64;
constexpr std::int64_t kRecords = 20;

TYBatch MakeBatch(const std::string& playback) {
    TYMediaData record{};
    playback.copy(record.playbackID, sizeof(record.playbackID) - 1);
    TYBatch batch;
    batch.sender = {"bus", ":1.1", 1000, 42};
    batch.arrival = 1000;
    batch.records.assign(kRecords, record);
    batch.urls.assign(kRecords, "https://video.example.org/" + playback);
    return batch;
}

/// The bytes of a store's file and of its log.
struct Image {
    std::string file;
    std::string log;
};

/// @param clean  whether the store was closed, so that its log is gone
Image MakeImage(bool clean) {
    const CTemporaryFolder folder;
    const std::string path = folder.Path() / "t.db";
    auto keeper = std::make_unique<CTYStoreKeeper>(path, TYStoreLimits{});
    for (int i = 0; i < 8; ++i) {
        Require(keeper->Add(MakeBatch("old" + std::to_string(i))), "a good store takes a batch");
    }
    if (clean) {
        keeper.reset();
    }
    return {ReadFile(path), clean ? "" : ReadFile(path + "-wal")};
}

// Each patch is an offset and the bytes to put there. An empty patch truncates.
void Damage(std::string& content, CBytes& bytes) {
    const auto offset = static_cast<std::uint32_t>(bytes.Int()) % (content.size() + 1);
    const std::string_view patch = bytes.Some();
    if (patch.empty()) {
        content.resize(offset);
    } else {
        content.replace(offset, std::min(patch.size(), content.size() - offset), patch);
    }
}

Image MakeDamaged(CBytes& bytes) {
    static const Image kClean = MakeImage(true);
    static const Image kUnclean = MakeImage(false);
    const std::uint8_t kind = bytes.Byte();
    Image image = kind % 2 == 0 ? kClean : kUnclean;
    while (!bytes.AtEnd()) {
        const bool inLog = bytes.Byte() % 2 != 0 && !image.log.empty();
        Damage(inLog ? image.log : image.file, bytes);
    }
    return image;
}

/// What a store says of the batch "new".
struct Told {
    std::int64_t stored;
    std::int64_t damaged;  ///< of all batches
};

// Damage that nobody has met yet may hide a record: after a clean end the service does not search.
std::optional<Told> Ask(const std::string& path) try {
    CTYDatabase database(path, CTYDatabase::Mode::READ_ONLY);
    CTYStatement check(database, "PRAGMA integrity_check");
    if (!check.Step() || check.Text(0) != "ok") {
        return std::nullopt;
    }
    return Told{database.Number("SELECT count(*) FROM records WHERE playback_id = 'new'"),
                database.Number("SELECT total(records) FROM losses WHERE reason = 'damaged'")};
} catch (const CTYDatabaseError&) {
    return std::nullopt;
}

// Until the check and the recovery have ended.
void KeepHouse(CTYStoreKeeper& keeper) {
    int steps = 0;
    for (bool isMore = true; isMore; ++steps) {
        Require(steps < kMostSteps, "housekeeping ends");
        for (int i = 0; i < 100 && !keeper.HasGrown(); ++i) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        isMore = keeper.Prune() || keeper.HasGrown();
    }
}

/// @return whether the batch was accepted
bool StoreBatch(const std::string& path, const Image& image) {
    CTYStoreKeeper keeper(path, {});
    keeper.Open();
    keeper.Policy("org.example.app");
    const bool accepted = keeper.Add(MakeBatch("new"));
    if (keeper.Unusable()) {
        Require(!accepted && ReadFile(path) == image.file, "another's file is not changed");
    } else {
        KeepHouse(keeper);
    }
    return accepted;
}

std::string NextPath() {
    static std::unique_ptr<CTemporaryFolder> folder;
    static int inputs = 0;
    if (inputs++ % kInputsForAFolder == 0) {
        folder = std::make_unique<CTemporaryFolder>();
    }
    return folder->Path() / (std::to_string(inputs) + ".db");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size) {
    CBytes bytes(pData, size);
    const Image image = MakeDamaged(bytes);
    const std::string path = NextPath();
    std::ofstream(path, std::ios::binary) << image.file;
    if (!image.log.empty()) {
        std::ofstream(path + "-wal", std::ios::binary) << image.log;
    }
    const bool accepted = StoreBatch(path, image);
    const auto told = Ask(path);
    Require(!told || accepted || told->stored == 0, "a refused batch is not stored");
    // It may have been written to a damaged page.
    Require(!told || !accepted ||
                (told->stored <= kRecords && told->stored + told->damaged >= kRecords),
            "an accepted batch is stored once, or counted as damaged");
    Require(accepted || std::filesystem::exists(path), "a refused file stays");
    return 0;
}
