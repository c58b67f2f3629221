// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PostgresFixture.h"

namespace {

constexpr std::int64_t kNsPerDay = 86'400'000'000'000;

class CPostgresPartitionsTest : public CPostgresTest {
  protected:
    /// Adds 24 records of another device, so that their day is the newest one that has records.
    void AddOfAnother(CTYPostgresDatabase& database) const {
        CFleetDevice other(2);
        database.Add(other.NextBatches(1, m_nNow));
    }

    /// Stores 24 records of a device on each of some days.
    void AddOnDays(int first, int count) const {
        CFleetDevice device(1);
        for (int day = first; day < first + count; ++day) {
            CTYPostgresDatabase database(Url(), {.shift = day});
            database.Add(device.NextBatches(1, m_nNow));
        }
    }

    std::int64_t Days() const { return Number("SELECT count(DISTINCT day) FROM entries"); }
};

TEST_F(CPostgresPartitionsTest, MakesThePartitionsOfTheNextDays) {
    CFleetDevice device(1);
    CTYPostgresDatabase database(Url());
    database.Add(device.NextBatches(1, m_nNow));
    Query("DROP TABLE entries_" + Column("SELECT to_char(current_date + 3, 'YYYYMMDD')")[0]);
    database.Maintain();
    EXPECT_EQ(Number("SELECT count(*) FROM pg_inherits i WHERE inhparent = 'entries'::regclass"),
              4);
}

TEST_F(CPostgresPartitionsTest, KeepsRecordsThatADeviceHeldForAMonth) {
    CFleetDevice device(1);
    CTYPostgresDatabase database(Url(), {.keepDays = 7});
    database.Add(device.NextBatches(3, m_nNow - 30 * kNsPerDay));
    database.Maintain();
    EXPECT_EQ(Stored(), 72);
}

TEST_F(CPostgresPartitionsTest, DropsOldRecordsAndKeepsPlaybacks) {
    CFleetDevice device(1);
    const Batches batches = device.NextBatches(3, m_nNow);
    CTYPostgresDatabase(Url()).Add(batches);
    CTYPostgresDatabase later(Url(), {.keepDays = 7, .shift = 7});
    later.Maintain();
    EXPECT_EQ(Stored(), 72);
    CTYPostgresDatabase muchLater(Url(), {.keepDays = 7, .shift = 8});
    AddOfAnother(muchLater);
    const std::vector<std::string> playbacks = Playbacks();
    muchLater.Maintain();
    EXPECT_EQ(Stored(), 24);
    EXPECT_EQ(Number("SELECT count(DISTINCT day) FROM contexts"), 1);
    muchLater.Add(batches);
    EXPECT_EQ(Stored(), 24);
    EXPECT_EQ(Playbacks(), playbacks);
}

TEST_F(CPostgresPartitionsTest, LeavesAPartitionThatIsBeingRead) {
    CFleetDevice device(1);
    CTYPostgresDatabase(Url()).Add(device.NextBatches(1, m_nNow));
    CTYPostgresDatabase later(Url(), {.keepDays = 7, .shift = 8});
    AddOfAnother(later);
    {
        pqxx::connection connection(Url());
        pqxx::work reading(connection);
        reading.exec("SELECT count(*) FROM records");
        later.Maintain();
    }
    EXPECT_EQ(Stored(), 48);
    later.Maintain();
    EXPECT_EQ(Stored(), 24);
}

TEST_F(CPostgresPartitionsTest, SkipsAPartitionThatAViewDependsOn) {
    AddOnDays(0, 2);
    const std::string today = Column("SELECT to_char(current_date, 'YYYYMMDD')")[0];
    Query("CREATE VIEW mine AS SELECT id FROM entries_" + today);
    CTYPostgresDatabase later(Url(), {.keepDays = 7, .shift = 9});
    AddOfAnother(later);
    later.Maintain();
    later.Maintain();
    EXPECT_EQ(Days(), 2);
    EXPECT_EQ(Number("SELECT count(DISTINCT day) FROM contexts"), 1);
    EXPECT_EQ(Number("SELECT count(*) FROM mine"), 24);
    Query("DROP VIEW mine");
    later.Maintain();
    EXPECT_EQ(Days(), 1);
}

TEST_F(CPostgresPartitionsTest, DropsNothingBecauseOfAClockThatRunsAhead) {
    AddOnDays(0, 3);
    CTYPostgresDatabase ahead(Url(), {.keepDays = 7, .shift = 100});
    ahead.Maintain();
    EXPECT_EQ(Days(), 3);
}

TEST_F(CPostgresPartitionsTest, DropsTheOldestDayOfACall) {
    AddOnDays(0, 3);
    CTYPostgresDatabase ahead(Url(), {.keepDays = 7, .shift = 100});
    AddOfAnother(ahead);
    for (const std::int64_t left : {3, 2, 1}) {
        ahead.Maintain();
        EXPECT_EQ(Days(), left);
        EXPECT_EQ(Number("SELECT count(DISTINCT day) FROM contexts"), left);
    }
    ahead.Maintain();
    EXPECT_EQ(Stored(), 24);
}

}  // namespace
