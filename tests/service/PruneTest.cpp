// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::int64_t kHour = CFakeTimes::kHour;
constexpr std::int64_t kMany = std::int64_t{1} << 40;
constexpr TYStoreLimits kOneDay{std::chrono::hours(24), kMany};
constexpr TYStoreLimits kOneHour{std::chrono::hours(1), kMany};

class Prune : public CStoreTest {
  protected:
    CTYStore& Open(TYStoreLimits limits) {
        m_pStore.reset();
        m_pStore = std::make_unique<CTYStore>(m_File, limits, m_Times.Reader());
        return *m_pStore;
    }
    // Prunes until there is nothing more to drop.
    int PruneAll() {
        int rounds = 1;
        while (m_pStore->Prune() && rounds < 10'000) {
            ++rounds;
        }
        return rounds;
    }
    std::vector<std::string> Playbacks() {
        return Column("SELECT playback_id FROM playbacks ORDER BY id");
    }
    std::vector<std::string> Losses() {
        return Column(
            "SELECT reason || ' ' || application || ' ' || playbacks || ' ' || records "
            "FROM losses ORDER BY id");
    }
    // Adds playbacks of about 5 KiB, the oldest first.
    void AddBigPlaybacks(int count, std::int64_t uid = 1000) {
        for (int i = 0; i < count; ++i) {
            TYBatch batch = BatchOf("p" + std::to_string(i));
            batch.sender = {"bus", ":1." + std::to_string(uid), uid, 1};
            batch.urls[0] = std::string(5000, 'u');
            m_pStore->Add(batch);
        }
    }

    CFakeTimes m_Times;
    std::unique_ptr<CTYStore> m_pStore;
};

TEST_F(Prune, DropsNothingWithinTheLimits) {
    CTYStore& store = Open(kOneDay);
    for (int i = 0; i < 2; ++i) {
        store.Add(BatchOf("p1"));
        m_Times.Pass(kHour);
        EXPECT_EQ(PruneAll(), 1);
    }
    EXPECT_THAT(Playbacks(), ElementsAre("p1"));
    EXPECT_THAT(Losses(), IsEmpty());
    EXPECT_EQ(Number("SELECT count(*) FROM contexts"), 1) << "the cache was cleared";
}

TEST_F(Prune, DropsOldRecordsAndCountsThem) {
    CTYStore& store = Open(kOneDay);
    TYBatch other = BatchOf("older");
    other.sender.name = ":1.2";
    store.Add(other);
    m_Times.Pass(kHour);
    store.Add(MakeBatch({MakeRecord(TY_EVENT_START, "old"), MakeRecord(TY_EVENT_STOP, "old")}));
    m_Times.Pass(2 * kHour);
    store.Add(BatchOf("young"));
    m_Times.Pass(23 * kHour);
    PruneAll();
    EXPECT_THAT(Playbacks(), ElementsAre("young"));
    EXPECT_EQ(Stored(), 1);
    EXPECT_THAT(Column("SELECT name FROM senders"), ElementsAre(":1.1"));
    EXPECT_THAT(Losses(), ElementsAre("age org.example.app 2 3"));
    EXPECT_THAT(Column("SELECT count(*) FROM contexts UNION ALL SELECT count(*) FROM runs "
                       "UNION ALL SELECT count(*) FROM entries"),
                ElementsAre("1", "1", "1"));
}

TEST_F(Prune, DropsTheOldestPlaybacksAndShrinksTheFile) {
    constexpr std::int64_t kLimit = 256 << 10;
    Open({std::chrono::hours(24), kLimit});
    AddBigPlaybacks(100);
    ASSERT_GT(m_pStore->UsedBytes(), kLimit);
    PruneAll();
    const auto kept = Number("SELECT count(*) FROM playbacks");
    EXPECT_LE(m_pStore->UsedBytes(), kLimit);
    // The log needs a sixteenth.
    EXPECT_GT(m_pStore->UsedBytes(), kLimit - (kLimit / 16) - (16 << 10));
    EXPECT_EQ(Number("SELECT min(substr(playback_id, 2) + 0) FROM playbacks"), 100 - kept);
    const std::string dropped = std::to_string(100 - kept);
    EXPECT_THAT(Losses(), ElementsAre("room org.example.app " + dropped + " " + dropped));
    EXPECT_EQ(Number("PRAGMA freelist_count"), 0);
    m_pStore.reset();
    EXPECT_LE(std::filesystem::file_size(m_File), static_cast<std::uintmax_t>(kLimit));
}

TEST_F(Prune, DropsABoundedNumberAtATimeAndNoPolicies) {
    Open(kOneHour);
    Execute("INSERT INTO policies(application, value, changed) VALUES('a', 5, 0)");
    for (int i = 0; i < 200; ++i) {
        m_pStore->Add(MakeBatch(std::vector<TYMediaData>(36, MakeRecord(TY_EVENT_PAUSE))));
    }
    m_Times.Pass(2 * kHour);
    EXPECT_TRUE(m_pStore->Prune());
    EXPECT_GE(Stored(), 200 * 36 - 4096 - 36);
    EXPECT_GT(PruneAll(), 1);
    EXPECT_EQ(Stored(), 0);
    EXPECT_THAT(Losses(), ElementsAre("age org.example.app 1 7200"));
    EXPECT_EQ(m_pStore->Policy("a").value, 5);
}

TEST_F(Prune, CountsTheLossesOfAnHourInOneRow) {
    CTYStore& store = Open(kOneHour);
    store.Add(BatchOf("a"));
    m_Times.Pass(kHour / 2);
    store.Add(BatchOf("b"));
    m_Times.Pass(kHour / 2 + 1);
    store.Prune();
    m_Times.Pass(kHour / 2);
    store.Prune();
    store.Add(BatchOf("c"));
    m_Times.Pass(2 * kHour);
    store.Prune();
    EXPECT_THAT(Losses(), ElementsAre("age org.example.app 2 2", "age org.example.app 1 1"));
}

TEST_F(Prune, LetsASenderContinueADroppedPlayback) {
    CTYStore& store = Open(kOneDay);
    store.Add(BatchOf("p1"));
    m_Times.Pass(25 * kHour);
    PruneAll();
    store.Add(BatchOf("p1"));
    EXPECT_THAT(Column("SELECT records FROM playbacks"), ElementsAre("1"));
    EXPECT_EQ(Stored(), 1);
}

TEST_F(Prune, IsDueAfterASixteenthOfTheLimit) {
    Open({std::chrono::hours(24), 1 << 20});
    AddBigPlaybacks(12);
    EXPECT_FALSE(m_pStore->HasGrown());
    AddBigPlaybacks(2);
    EXPECT_TRUE(m_pStore->HasGrown());
    m_pStore->Prune();
    EXPECT_FALSE(m_pStore->HasGrown());
}

TEST_F(Prune, DropsNothingThatItCannotCount) {
    CTYStore& store = Open(kOneDay);
    store.Add(BatchOf("p1"));
    m_Times.Pass(25 * kHour);
    Execute("CREATE TRIGGER fail BEFORE INSERT ON losses BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_THROW(store.Prune(), CTYDatabaseError);
    EXPECT_THAT(Playbacks(), ElementsAre("p1"));
    Execute("DROP TRIGGER fail");
    PruneAll();
    EXPECT_THAT(Losses(), ElementsAre("age org.example.app 1 1"));
}

}  // namespace
