// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::int64_t kHour = std::int64_t{3600} * 1'000'000'000;
constexpr std::int64_t kNow = 1000 * kHour;
constexpr std::int64_t kMany = std::int64_t{1} << 40;
constexpr TYStoreLimits kOneDay{std::chrono::hours(24), kMany};
constexpr TYStoreLimits kOneHour{std::chrono::hours(1), kMany};

class Prune : public CStoreTest {
  protected:
    CTYStore& Open(TYStoreLimits limits) {
        m_pStore = std::make_unique<CTYStore>(m_File, limits);
        return *m_pStore;
    }
    // Prunes until there is nothing more to drop.
    int PruneAll() {
        int rounds = 1;
        while (m_pStore->Prune(kNow) && rounds < 10'000) {
            ++rounds;
        }
        return rounds;
    }
    std::vector<std::string> Playbacks() {
        return Column("SELECT playback_id FROM playbacks ORDER BY id");
    }
    std::vector<std::string> Losses() {
        return Column(
            "SELECT reason || ' ' || playbacks || ' ' || records FROM losses ORDER BY id");
    }
    // Adds playbacks of about 5 KiB, the oldest first.
    void AddBigPlaybacks(int count) {
        for (int i = 0; i < count; ++i) {
            TYBatch batch = BatchOf("p" + std::to_string(i), kNow - kHour + i);
            batch.urls[0] = std::string(5000, 'u');
            m_pStore->Add(batch);
        }
    }

    std::unique_ptr<CTYStore> m_pStore;
};

TEST_F(Prune, DropsNothingWithinTheLimits) {
    CTYStore& store = Open(kOneDay);
    for (int i = 0; i < 2; ++i) {
        store.Add(BatchOf("p1", kNow - kHour));
        EXPECT_EQ(PruneAll(), 1);
    }
    EXPECT_THAT(Playbacks(), ElementsAre("p1"));
    EXPECT_THAT(Losses(), IsEmpty());
    EXPECT_EQ(Number("SELECT count(*) FROM contexts"), 1) << "the cache was cleared";
}

TEST_F(Prune, DropsOldPlaybacksAndCountsThem) {
    CTYStore& store = Open(kOneDay);
    store.Add(MakeBatch({MakeRecord(TY_EVENT_START, "old"), MakeRecord(TY_EVENT_STOP, "old")},
                        kNow - 25 * kHour));
    TYBatch other = BatchOf("older", kNow - 26 * kHour);
    other.sender.name = ":1.2";
    store.Add(other);
    // The age of a playback is that of its last record.
    store.Add(BatchOf("young", kNow - 26 * kHour));
    store.Add(BatchOf("young", kNow - 23 * kHour));
    PruneAll();
    EXPECT_THAT(Playbacks(), ElementsAre("young"));
    EXPECT_EQ(Stored(), 2);
    EXPECT_THAT(Column("SELECT name FROM senders"), ElementsAre(":1.1"));
    EXPECT_THAT(Losses(), ElementsAre("age 2 3"));
    EXPECT_THAT(Column("SELECT count(*) FROM contexts UNION ALL SELECT count(*) FROM runs "
                       "UNION ALL SELECT count(*) FROM entries"),
                ElementsAre("1", "2", "2"));
}

TEST_F(Prune, DropsTheOldestPlaybacksAndShrinksTheFile) {
    Open({std::chrono::hours(24), 256 << 10});
    AddBigPlaybacks(100);
    ASSERT_GT(m_pStore->UsedBytes(), 256 << 10);
    PruneAll();
    const auto kept = Number("SELECT count(*) FROM playbacks");
    EXPECT_LE(m_pStore->UsedBytes(), 256 << 10);
    EXPECT_GT(m_pStore->UsedBytes(), (256 << 10) - (16 << 10));
    EXPECT_EQ(Number("SELECT min(substr(playback_id, 2) + 0) FROM playbacks"), 100 - kept);
    const std::string dropped = std::to_string(100 - kept);
    EXPECT_THAT(Losses(), ElementsAre("size " + dropped + " " + dropped));
    EXPECT_EQ(Number("PRAGMA freelist_count"), 0);
    m_pStore.reset();
    EXPECT_LE(std::filesystem::file_size(m_File), 256U << 10);
}

TEST_F(Prune, DropsABoundedNumberAtATimeAndNoPolicies) {
    Open(kOneHour);
    Execute("INSERT INTO policies VALUES('a', 5, 0)");
    for (int i = 0; i < 40; ++i) {
        m_pStore->Add(BatchOf(std::to_string(i), i));
    }
    EXPECT_TRUE(m_pStore->Prune(kNow));
    EXPECT_EQ(Number("SELECT count(*) FROM playbacks"), 24);
    EXPECT_GT(PruneAll(), 1);
    EXPECT_THAT(Playbacks(), IsEmpty());
    EXPECT_THAT(Losses(), ElementsAre("age 40 40"));
    EXPECT_EQ(m_pStore->Policy("a"), 5);
}

TEST_F(Prune, CountsTheLossesOfAnHourInOneRow) {
    CTYStore& store = Open(kOneHour);
    for (const std::int64_t now : {kNow, kNow + kHour / 2, kNow + 2 * kHour}) {
        store.Add(BatchOf("p", now - 5 * kHour));
        store.Prune(now);
    }
    EXPECT_THAT(Losses(), ElementsAre("age 2 2", "age 1 1"));
}

TEST_F(Prune, LetsASenderContinueADroppedPlayback) {
    CTYStore& store = Open(kOneDay);
    store.Add(BatchOf("p1", 1));
    PruneAll();
    store.Add(BatchOf("p1", kNow));
    EXPECT_THAT(Column("SELECT records FROM playbacks"), ElementsAre("1"));
    EXPECT_EQ(Stored(), 1);
}

TEST_F(Prune, IsDueAfterASixteenthOfTheLimit) {
    Open({std::chrono::hours(24), 1 << 20});
    AddBigPlaybacks(12);
    EXPECT_FALSE(m_pStore->HasGrown());
    AddBigPlaybacks(2);
    EXPECT_TRUE(m_pStore->HasGrown());
    m_pStore->Prune(kNow);
    EXPECT_FALSE(m_pStore->HasGrown());
}

TEST_F(Prune, DropsNothingThatItCannotCount) {
    CTYStore& store = Open(kOneDay);
    store.Add(BatchOf("p1", 1));
    Execute("CREATE TRIGGER fail BEFORE INSERT ON losses BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_THROW(store.Prune(kNow), CTYDatabaseError);
    EXPECT_THAT(Playbacks(), ElementsAre("p1"));
    Execute("DROP TRIGGER fail");
    PruneAll();
    EXPECT_THAT(Losses(), ElementsAre("age 1 1"));
}

}  // namespace
