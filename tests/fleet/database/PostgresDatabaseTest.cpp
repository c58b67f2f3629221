// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PostgresFixture.h"
#include "TYPlaybackLog.h"

#include <algorithm>
#include <future>
#include <random>

namespace {

class CPostgresDatabaseTest : public CPostgresTest {
  protected:
    /// Adds batches some at a time.
    static void AddSome(CTYPostgresDatabase& database, const Batches& batches,
                        std::size_t atOnce = 7) {
        for (std::size_t i = 0; i < batches.size(); i += atOnce) {
            database.Add(std::span(batches).subspan(i, std::min(atOnce, batches.size() - i)));
        }
    }

    /// @return batches of several devices, in turns
    Batches FleetBatches(int devices, std::size_t each) const {
        Batches all;
        for (int i = 0; i < devices; ++i) {
            CFleetDevice device(i);
            const Batches batches = device.NextBatches(each, m_nNow);
            all.insert(all.end(), batches.begin(), batches.end());
        }
        std::shuffle(all.begin(), all.end(), m_Random);
        return all;
    }

    mutable std::mt19937 m_Random{1};
};

/// @return the records of batches in other batches, of 1 to 24 records
Batches CutDifferently(const Batches& batches, std::mt19937& random) {
    Batches cut;
    for (const TYForwardedBatch& batch : batches) {
        for (std::size_t i = 0; i < batch.records.size();) {
            const std::size_t count =
                std::min<std::size_t>(1 + random() % 24, batch.records.size() - i);
            cut.push_back(PartOf(batch, i, count));
            i += count;
        }
    }
    return cut;
}

TEST_F(CPostgresDatabaseTest, StoresEachRecordOnceInAnyOrder) {
    const Batches batches = FleetBatches(5, 20);
    CTYPostgresDatabase database(Url());
    AddSome(database, batches);
    const std::vector<std::string> expected = Playbacks();
    Batches again = CutDifferently(batches, m_Random);
    again.insert(again.end(), batches.begin(), batches.end());
    std::shuffle(again.begin(), again.end(), m_Random);
    AddSome(database, again);
    EXPECT_EQ(Stored(), RecordsIn(batches));
    EXPECT_EQ(StoredTwice(), 0);
    EXPECT_EQ(Playbacks(), expected);
}

TEST_F(CPostgresDatabaseTest, ComputesTheSameFromShuffledDuplicates) {
    CFleetDevice device(1);
    const Batches batches = device.NextBatches(40, m_nNow);
    {
        CTYPostgresDatabase database(Url());
        AddSome(database, batches);
    }
    const std::vector<std::string> expected = Playbacks();
    SetUp();
    CTYPostgresDatabase database(Url());
    Batches shuffled = CutDifferently(batches, m_Random);
    shuffled.insert(shuffled.end(), batches.begin(), batches.end());
    std::shuffle(shuffled.begin(), shuffled.end(), m_Random);
    AddSome(database, shuffled);
    EXPECT_EQ(Playbacks(), expected);
    EXPECT_EQ(Stored(), RecordsIn(batches));
    EXPECT_EQ(StoredTwice(), 0);
    EXPECT_EQ(database.StoredUpTo(device.Name(), device.Epoch()), batches.back().Last());
}

TEST_F(CPostgresDatabaseTest, LetsTwoCollectorsStoreTheSameAtOnce) {
    const Batches batches = FleetBatches(10, 20);
    const auto collect = [&](unsigned seed) {
        std::mt19937 random(seed);
        CTYPostgresDatabase database(Url());
        for (int round = 0; round < 3; ++round) {
            Batches mine = CutDifferently(batches, random);
            std::shuffle(mine.begin(), mine.end(), random);
            AddSome(database, mine, 40);
            database.Maintain();
        }
    };
    auto other = std::async(std::launch::async, collect, 2);
    collect(3);
    other.get();
    EXPECT_EQ(Stored(), RecordsIn(batches));
    EXPECT_EQ(StoredTwice(), 0);
    EXPECT_EQ(Number("SELECT count(*) FROM sources"), 10);
    EXPECT_EQ(Number("SELECT sum(records) FROM playbacks"), RecordsIn(batches));
}

TEST_F(CPostgresDatabaseTest, StopsTheWatermarkAtAGap) {
    CFleetDevice device(1);
    const Batches batches = device.NextBatches(3, m_nNow);
    CTYPostgresDatabase database(Url());
    EXPECT_EQ(database.StoredUpTo(device.Name(), device.Epoch()), 0);
    EXPECT_EQ(database.Add({&batches[0], 1}).front(),
              (TYWatermark{device.Name(), device.Epoch(), 24}));
    EXPECT_EQ(database.Add({&batches[2], 1}).front().stored, 24);
    EXPECT_EQ(database.Add({&batches[1], 1}).front().stored, 72);
    EXPECT_EQ(database.StoredUpTo(device.Name(), device.Epoch()), 72);
}

TEST_F(CPostgresDatabaseTest, JumpsOverIdsThatADeviceHasNoEntriesFor) {
    CFleetDevice device(1);
    Batches batches = device.NextBatches(2, m_nNow);
    batches[1].first += 1000;
    CTYPostgresDatabase database(Url());
    EXPECT_EQ(database.Add(batches).front().stored, batches[1].Last());
    EXPECT_EQ(Stored(), 48);
}

/// @return records 13 to 36 of two batches, which their device recovered into a new store
TYForwardedBatch RecoveredFrom(const Batches& sent) {
    TYForwardedBatch recovered = PartOf(sent[0], 12, 12);
    const std::vector<TYMediaData>& more = sent[1].records;
    recovered.records.insert(recovered.records.end(), more.begin(), more.begin() + 12);
    recovered.urls.resize(24);
    recovered.arrivals.resize(24);
    recovered.origin = {sent[0].epoch, 13};
    recovered.epoch = "00000000-0000-4000-8000-000000000001";
    recovered.after = 0;
    recovered.first = 1;
    return recovered;
}

TEST_F(CPostgresDatabaseTest, KeepsTheKeysOfRecoveredRecords) {
    CFleetDevice device(1);
    const Batches sent = device.NextBatches(2, m_nNow);
    const TYForwardedBatch recovered = RecoveredFrom(sent);
    CTYPostgresDatabase database(Url());
    database.Add({sent.data(), 1});
    EXPECT_EQ(database.Add({&recovered, 1}),
              (std::vector{TYWatermark{device.Name(), recovered.epoch, 24}}));
    EXPECT_EQ(Stored(), 36);
    EXPECT_EQ(Number("SELECT max(id) FROM records WHERE epoch = '" + sent[0].epoch + "'"), 36);
    EXPECT_EQ(database.StoredUpTo(device.Name(), sent[0].epoch), 36);
    database.Add({&sent[1], 1});
    EXPECT_EQ(Stored(), 48);
}

TEST_F(CPostgresDatabaseTest, PutsTheEpochOfRecoveredRecordsFirst) {
    CFleetDevice device(1);
    const Batches sent = device.NextBatches(2, m_nNow);
    Batches batches = {PartOf(sent[0], 0, 1), RecoveredFrom(sent)};
    batches[0].epoch = batches[1].epoch;
    batches[0].after = 24;
    batches[0].first = 25;
    CTYPostgresDatabase(Url()).Add(batches);
    EXPECT_EQ(Column("SELECT epoch FROM sources ORDER BY id"),
              (std::vector{sent[0].epoch, batches[1].epoch}));
}

TEST_F(CPostgresDatabaseTest, IsNotMisledByTheKeysOfAnotherDevice) {
    CFleetDevice device(1);
    const Batches batches = device.NextBatches(2, m_nNow);
    Batches forged = batches;
    for (TYForwardedBatch& batch : forged) {
        batch.device = "forger";
        batch.records[0].param1 = 4711;
    }
    CTYPostgresDatabase database(Url());
    database.Add(forged);
    EXPECT_EQ(database.StoredUpTo(device.Name(), device.Epoch()), 0);
    const std::vector<std::string> before =
        Column("SELECT r::text FROM records r WHERE device = 'forger' ORDER BY id");
    database.Add(batches);
    EXPECT_EQ(Stored(), 96);
    EXPECT_EQ(Column("SELECT r::text FROM records r WHERE device = 'forger' ORDER BY id"), before);
}

TEST_F(CPostgresDatabaseTest, StoresNothingTwiceAfterMidnight) {
    CFleetDevice device(1);
    const Batches batches = device.NextBatches(4, m_nNow);
    CTYPostgresDatabase(Url()).Add({batches.data(), 3});
    CTYPostgresDatabase tomorrow(Url(), {.shift = 1});
    tomorrow.Add(batches);
    EXPECT_EQ(Stored(), 96);
    EXPECT_EQ(StoredTwice(), 0);
    EXPECT_EQ(Column("SELECT count(*) FROM records GROUP BY day ORDER BY day"),
              (std::vector<std::string>{"72", "24"}));
}

TEST_F(CPostgresDatabaseTest, CountsRefusedMessagesAndCoversTheirIds) {
    CFleetDevice device(1);
    const Batches batches = device.NextBatches(3, m_nNow);
    CTYPostgresDatabase database(Url());
    database.Add({batches.data(), 1});
    database.Refuse("malformed", nullptr, 0);
    TYForwardedBatch range = batches[1];
    range.records.clear();
    database.Refuse("malformed", &range, 48);
    EXPECT_EQ(database.StoredUpTo(device.Name(), device.Epoch()), 48);
    EXPECT_EQ(Number("SELECT messages FROM refusals WHERE reason = 'malformed'"), 2);
    EXPECT_EQ(database.Add(batches).front().stored, 72);
    EXPECT_EQ(Stored(), 48);
}

TEST_F(CPostgresDatabaseTest, RefusesImpossibleBatches) {
    CFleetDevice device(1);
    const TYForwardedBatch good = device.Next(m_nNow);
    CTYPostgresDatabase database(Url());
    for (const auto& [after, first] : std::vector<std::pair<std::int64_t, std::int64_t>>{
             {-1, 1}, {0, 0}, {5, 5}, {0, INT64_MAX - 3}, {INT64_MAX, INT64_MIN}}) {
        TYForwardedBatch batch = good;
        batch.after = after;
        batch.first = first;
        EXPECT_THROW(database.Add({&batch, 1}), std::invalid_argument) << first;
    }
    TYForwardedBatch batch = good;
    batch.epoch = "no-uuid";
    EXPECT_THROW(database.Add({&batch, 1}), std::invalid_argument);
    EXPECT_EQ(database.Add({&good, 1}).front().stored, 24);
}

TEST_F(CPostgresDatabaseTest, CountsARefusalWithAnImpossibleRange) {
    CFleetDevice device(1);
    TYForwardedBatch range = device.Next(m_nNow);
    CTYPostgresDatabase database(Url());
    database.Refuse("malformed", &range, INT64_MAX);
    range.after = -1;
    database.Refuse("malformed", &range, 24);
    range.epoch = "no-uuid";
    database.Refuse("malformed", &range, 24);
    EXPECT_EQ(Number("SELECT messages FROM refusals WHERE reason = 'malformed'"), 3);
    EXPECT_EQ(Number("SELECT count(*) FROM sources"), 0);
}

TEST_F(CPostgresDatabaseTest, TellsZeroForWhatItDoesNotKnow) {
    CTYPostgresDatabase database(Url());
    EXPECT_EQ(database.StoredUpTo("nobody", "7d0ab0a5-6a11-4a2c-9a30-000000000001"), 0);
    EXPECT_EQ(database.StoredUpTo("nobody", "\xff"), 0);
    EXPECT_TRUE(database.Add({}).empty());
}

TEST_F(CPostgresDatabaseTest, StoresHostileTexts) {
    CFleetDevice device(1);
    TYForwardedBatch batch = device.Next(m_nNow, 3);
    std::fill_n(batch.records[0].playbackID, sizeof(batch.records[0].playbackID), '\xff');
    std::fill_n(batch.records[0].content.title, sizeof(batch.records[0].content.title), '\\');
    CopyText(batch.records[1].playbackID, "\",\\N}{'\t\n");
    CopyText(batch.records[1].serviceID, "\\N");
    batch.urls[1] = std::string("a\0b", 3);
    batch.urls[2] = "\xc3\x28\\.\n\\N\t";
    CTYPostgresDatabase database(Url());
    database.Add({&batch, 1});
    EXPECT_EQ(Column("SELECT coalesce(url, 'none') FROM records WHERE id > 1 ORDER BY id"),
              (std::vector<std::string>{"a", "\xef\xbf\xbd(\\.\n\\N\t"}));
    EXPECT_EQ(Column("SELECT application FROM playbacks WHERE playback_id = '\",\\N}{''\t\n'"),
              std::vector<std::string>{"\\N"});
    EXPECT_EQ(Number("SELECT length(title) FROM records WHERE id = 1"), 256);
}

TEST_F(CPostgresDatabaseTest, GivesRecordsWithoutPlaybackNoRow) {
    CFleetDevice device(1);
    TYForwardedBatch batch = device.Next(m_nNow);
    for (TYMediaData& record : batch.records) {
        FillWithZeros(record.playbackID);
    }
    CTYPostgresDatabase(Url()).Add({&batch, 1});
    EXPECT_EQ(Stored(), 24);
    EXPECT_EQ(Playbacks().size(), 0U);
}

TEST_F(CPostgresDatabaseTest, BoundsAnEndlessPlayback) {
    CFleetDevice device(1);
    TYForwardedBatch batch = device.Next(m_nNow, 1);
    batch.records.resize(CTYPlaybackLog::kMostRecords + 1, batch.records[0]);
    batch.urls.resize(batch.records.size());
    batch.arrivals.resize(batch.records.size(), m_nNow);
    CTYPostgresDatabase(Url()).Add({&batch, 1});
    EXPECT_EQ(Column("SELECT records || ' ' || timeline_cut FROM playbacks"),
              std::vector<std::string>{"20001 true"});
}

}  // namespace
