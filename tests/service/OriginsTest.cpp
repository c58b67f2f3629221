// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RecoveryFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// The table origins, whose rows tell where entries were before.
class Origins : public CStoreTest {
  protected:
    // Makes runs of the entries 1 to 10, 11 to 20 and so on.
    void AddRuns(int count) {
        for (int i = 0; i < count; ++i) {
            m_Store.Add(MakeBatch(std::vector<TYMediaData>(10, MakeRecord(TY_EVENT_PAUSE))));
        }
    }
    void Insert(int first, int last) {
        CTYStatement(m_Store.Database(),
                     "INSERT INTO origins(first, last, epoch, origin) VALUES(?, ?, 'e', 1)")
            .Run(first, last);
    }
    void Drop(int first) {
        CTYStatement(m_Store.Database(), "DELETE FROM runs WHERE first = ?").Run(first);
    }
    // Drops a run and puts it back.
    // @return the number of instructions that SQLite ran
    std::int64_t CostOfDropping(int first) {
        std::int64_t cost = 0;
        const auto count = [](void* pCost) { return ++*static_cast<std::int64_t*>(pCost), 0; };
        CTYTransaction transaction(m_Store.Database());
        sqlite3_progress_handler(m_Store.Database().Handle(), 1, count, &cost);
        Drop(first);
        sqlite3_progress_handler(m_Store.Database().Handle(), 0, nullptr, nullptr);
        return cost;
    }
    std::vector<std::string> Bounds() const {
        return Column("SELECT first || '-' || last FROM origins ORDER BY first");
    }

    CTYStore m_Store{m_File};
};

TEST_F(Origins, GoWithTheLastOfTheirEntries) {
    AddRuns(6);
    for (const auto& [first, last] : {std::pair(1, 4), {5, 10}, {11, 30}, {38, 43}}) {
        Insert(first, last);
    }
    Drop(31);
    EXPECT_THAT(Bounds(), ElementsAre("1-4", "5-10", "11-30", "38-43"));
    Drop(1);
    EXPECT_THAT(Bounds(), ElementsAre("11-30", "38-43"));
    Drop(21);
    EXPECT_THAT(Bounds(), ElementsAre("11-30", "38-43"));
    Drop(11);
    EXPECT_THAT(Bounds(), ElementsAre("38-43"));
    Drop(51);
    Drop(41);
    EXPECT_THAT(Bounds(), IsEmpty());
}

TEST_F(Origins, DoNotSlowDownTheDroppingOfRuns) {
    AddRuns(2000);
    const std::int64_t without = CostOfDropping(10'001);
    for (int first = 1; first < 20'000; first += 5) {
        Insert(first, first + 4);
    }
    const std::int64_t with = CostOfDropping(10'001);
    EXPECT_LT(with, without + 100) << "two of 4000 origins lie in the run";
    Drop(10'001);
    EXPECT_EQ(Bounds().size(), 3998U);
}

/// What a new store knows of the one that it replaces, and of the stores before.
class RecoveredOrigins : public CRecoveryTest {
  protected:
    static constexpr const char* kOlder = "01234567-89ab-4def-8123-456789abcdef";

    // Replaces the store by one with its records.
    // @param pChange  what is different in the damaged store
    void Recover(const std::string& change) {
        Execute((change + "; ALTER TABLE playbacks RENAME COLUMN stalls TO stalks").c_str());
        EXPECT_TRUE(m_Keeper.Open());
        while (m_Keeper.Prune()) {
        }
        EXPECT_EQ(Stored(), static_cast<std::int64_t>(m_Before.size()));
    }
    static std::string Insert(const std::string& rows) {
        return "INSERT INTO origins(first, last, device, epoch, origin) VALUES" + rows;
    }
    std::vector<std::string> Rows() const {
        return Column(
            "SELECT first || '-' || last || ' ' || device || ' ' || substr(epoch, 1, 8) || ' ' || "
            "origin FROM origins ORDER BY first");
    }
    std::string Epoch() const { return m_strEpoch.substr(0, 8); }
};

TEST_F(RecoveredOrigins, RecoveredRecordsKnowWhereTheyWere) {
    Make(50);
    Recover("SELECT 1");
    EXPECT_EQ(WithoutTheirOrigin(), 0);
    EXPECT_THAT(Rows(), ElementsAre("1-1000  " + Epoch() + " 1")) << "one row, not one a batch";
    EXPECT_NE(Column("SELECT epoch FROM store").front(), m_strEpoch);
}

TEST_F(RecoveredOrigins, AGapBeginsANewRange) {
    Make(4);
    // The second batch is gone, and so are two records in the middle of the third.
    m_Before.resize(80 - 20 - 2);
    Recover("DELETE FROM runs WHERE first = 21; DELETE FROM entries WHERE id IN (49, 50)");
    EXPECT_EQ(WithoutTheirOrigin(), 0);
    EXPECT_THAT(Rows(), ElementsAre("1-20  " + Epoch() + " 1", "21-28  " + Epoch() + " 41",
                                    "29-58  " + Epoch() + " 51"));
}

TEST_F(RecoveredOrigins, AnOlderOriginIsKept) {
    Make(5);
    const std::string older = kOlder;
    Recover(Insert("(21, 40, '', '" + older + "', 1001), (41, 45, '', '" + older +
                   "', 1021), (60, 61, 'tv-1', '" + older + "', 7)"));
    EXPECT_THAT(Rows(), ElementsAre("1-20  " + Epoch() + " 1", "21-45  01234567 1001",
                                    "46-59  " + Epoch() + " 46", "60-61 tv-1 01234567 7",
                                    "62-100  " + Epoch() + " 62"));
}

TEST_F(RecoveredOrigins, AnOriginThatMakesNoSenseIsNotKept) {
    Make(5);
    const std::string older = kOlder;
    Recover(Insert("(1, 20, '', 'unknown', 5), (21, 19, '', '" + older + "', 5), (41, 60, '', '" +
                   older + "', 9223372036854775800), (61, 70, 'a b', '" + older +
                   "', 1), (71, 80, '', '" + older + "', -4), (81, 'x', '', '" + older + "', 4)"));
    EXPECT_THAT(Rows(), ElementsAre("1-100  " + Epoch() + " 1"));
}

TEST_F(RecoveredOrigins, WithoutAnEpochThereIsNoOriginButOlderOnes) {
    Make(5);
    Recover("UPDATE store SET epoch = upper(epoch) || 'x';" +
            Insert("(21, 40, '', '" + std::string(kOlder) + "', 1)"));
    EXPECT_THAT(Rows(), ElementsAre("21-40  01234567 1"));
}

TEST_F(RecoveredOrigins, WithoutTheirTableTheStoreItselfIsTheOrigin) {
    Make(5);
    Recover("DROP TRIGGER entries_go_with_their_run; DROP TABLE origins");
    EXPECT_EQ(WithoutTheirOrigin(), 0);
}

TEST_F(RecoveredOrigins, OfAllTheStateOnlyThatTheDeviceForwardsIsKept) {
    Make(5);
    Recover(
        "INSERT INTO forwarding VALUES(1, 40, 60, 'T', 20000, 500);"
        "INSERT INTO forwarding_batches VALUES(41, 60, 40, 3);"
        "INSERT INTO coverage VALUES('tv', 'e', 1, 40)");
    EXPECT_THAT(Column("SELECT id || ' ' || stored || ' ' || sent || ' ' || stream || ' ' || day "
                       "|| ' ' || bytes FROM forwarding"),
                ElementsAre("1 0 0  0 0"));
    EXPECT_EQ(Number("SELECT (SELECT count(*) FROM forwarding_batches) + "
                     "(SELECT count(*) FROM coverage)"),
              0);
}

TEST_F(RecoveredOrigins, ADeviceThatDidNotForwardDoesNotForward) {
    Make(5);
    Recover("SELECT 1");
    EXPECT_EQ(Number("SELECT count(*) FROM forwarding"), 0);
}

}  // namespace
