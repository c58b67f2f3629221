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

class PruneAmongClocks : public Prune {
  protected:
    // Adds a record, and prunes after a restart, too.
    void AddAndPrune() {
        m_pStore->Add(BatchOf(std::to_string(++m_nAdded), m_Times.Now().wall));
        PruneAll();
        Open(kOneDay);
        PruneAll();
        EXPECT_EQ(Stored(), m_nAdded);
    }
    void Reboot(std::int64_t uptime) {
        m_pStore.reset();
        m_Times.Reboot(uptime);
        Open(kOneDay);
    }
    // Nothing is kept that is too old, either.
    void ExpectAllDroppedAfterADay() {
        m_Times.Pass(25 * kHour);
        PruneAll();
        EXPECT_EQ(Stored(), 0);
    }

    std::int64_t m_nAdded = 0;
};

TEST_F(PruneAmongClocks, DropsNothingThatTheTrueAgeAllows) {
    const struct {
        const char* pName;
        std::function<void()> happen;
    } faults[] = {{"40 days ahead", [this] { m_Times.Step(40 * 24 * kHour); }},
                  {"40 days behind", [this] { m_Times.Step(-40 * 24 * kHour); }},
                  {"1970", [this] { m_Times.Step(-m_Times.Now().wall); }},
                  {"1970 at boot", [this] {
                       m_Times.Step(-m_Times.Now().wall);
                       Reboot(0);
                   }}};
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.pName);
        m_nAdded = 0;
        Open(kOneDay);
        AddAndPrune();
        const std::int64_t wall = m_Times.Now().wall;
        fault.happen();
        AddAndPrune();
        // Now the clock is set right.
        m_Times.Step(wall - m_Times.Now().wall);
        AddAndPrune();
        ExpectAllDroppedAfterADay();
    }
}

TEST_F(PruneAmongClocks, DropsNothingWhileTheClockStepsBackEachMinuteForAnHour) {
    Open(kOneDay);
    for (int minute = 0; minute < 60; ++minute) {
        AddAndPrune();
        m_Times.Pass(kHour / 60);
        m_Times.Step(-kHour);
    }
    ExpectAllDroppedAfterADay();
}

TEST_F(PruneAmongClocks, CountsTheTimeBeforeAReboot) {
    Open(kOneDay);
    AddAndPrune();
    m_Times.Pass(12 * kHour);
    Reboot(11 * kHour);
    AddAndPrune();
    Reboot(2 * kHour);
    PruneAll();
    EXPECT_THAT(Playbacks(), ElementsAre("2"));
}

TEST_F(PruneAmongClocks, SavesTheRunningTimeAllTenMinutes) {
    Open(kOneDay);
    PruneAll();
    const std::int64_t begin = Number("SELECT clock FROM store");
    m_Times.Pass(kHour / 6 - 1);
    PruneAll();
    EXPECT_EQ(Number("SELECT clock FROM store"), begin);
    m_Times.Pass(1);
    PruneAll();
    EXPECT_EQ(Number("SELECT clock FROM store"), begin + kHour / 6);
    EXPECT_THAT(Column("SELECT boot || ' ' || boottime || ' ' || wall FROM store"),
                ElementsAre(m_Times.Now().boot + ' ' + std::to_string(m_Times.Now().boottime) +
                            ' ' + std::to_string(m_Times.Now().wall)));
}

TEST_F(PruneAmongClocks, ContinuesFromTheLastRunAfterACrash) {
    Open(kOneDay);
    PruneAll();
    m_Times.Pass(kHour);
    m_pStore->Add(BatchOf("last"));
    // A crash leaves the running time as it was saved before.
    m_pStore.reset();
    Execute("UPDATE store SET clock = 0, boottime = 0, boot = 'another'");
    m_Times.Reboot();
    Open(kOneDay).Add(BatchOf("next"));
    EXPECT_EQ(Number("SELECT max(clock) - min(clock) FROM runs"), 0);
    EXPECT_EQ(Number("SELECT max(clock) FROM runs"), kHour);
}

}  // namespace
