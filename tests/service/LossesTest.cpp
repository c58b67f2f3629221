// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYLosses.h"

#include "StoreFixture.h"

using testing::ElementsAre;
using testing::UnorderedElementsAre;

namespace {

constexpr std::int64_t kHour = CFakeTimes::kHour;

class Losses : public CStoreTest {
  protected:
    void Note(TYLossReason reason, const std::string& application, std::int64_t records) {
        CTYLosses losses;
        losses.Count(reason, application, records);
        m_Store.NoteLosses(losses);
    }
    std::vector<std::string> Rows() const {
        return Column(
            "SELECT reason || ' ' || application || ' ' || records || ' ' || playbacks "
            "FROM losses");
    }

    CFakeTimes m_Times;
    CTYStore m_Store{m_File, {}, m_Times.Reader()};
};

TEST_F(Losses, AreKeptByReasonAndApplication) {
    CTYLosses losses;
    EXPECT_TRUE(losses.IsEmpty());
    losses.Count(TYLossReason::RATE, "a", 3);
    losses.Count(TYLossReason::RATE, "b", 1);
    losses.Count(TYLossReason::RATE, "a", 4);
    losses.Count(TYLossReason::BAD_BATCH, "", 5, 2);
    losses.Count(TYLossReason::FULL, "c", 0);
    m_Store.NoteLosses(losses);
    EXPECT_THAT(Rows(), UnorderedElementsAre("rate a 7 0", "rate b 1 0", "bad_batch  5 2"));
    losses.Clear();
    EXPECT_TRUE(losses.IsEmpty());
}

TEST_F(Losses, HaveANameForEachReason) {
    std::set<std::string> names;
    for (int i = 0; i < static_cast<int>(TYLossReason::COUNT); ++i) {
        names.insert(TextOf(static_cast<TYLossReason>(i)));
    }
    EXPECT_THAT(names,
                UnorderedElementsAre("rate", "bytes", "busy", "full", "policy", "binding",
                                     "bad_batch", "sender", "age", "room", "damaged", "forgotten"));
}

TEST_F(Losses, OfInventedApplicationsAreCountedTogether) {
    CTYLosses losses;
    for (int i = 0; i < 1000; ++i) {
        losses.Count(TYLossReason::RATE, "invented" + std::to_string(i), 1);
    }
    losses.Count(TYLossReason::POLICY, "invented0", 1);
    EXPECT_EQ(losses.All().size(), CTYLosses::kMaxApplications + 2);
    EXPECT_EQ(losses.All().at({TYLossReason::RATE, ""}).records,
              1000 - static_cast<std::int64_t>(CTYLosses::kMaxApplications));
    losses.Clear();
    losses.Count(TYLossReason::RATE, "real", 1);
    EXPECT_EQ(losses.All().count({TYLossReason::RATE, "real"}), 1U) << "again after each flush";
}

TEST_F(Losses, OfOneHourShareARow) {
    Note(TYLossReason::RATE, "a", 1);
    m_Times.Pass(kHour - 1);
    Note(TYLossReason::RATE, "a", 2);
    Note(TYLossReason::BYTES, "a", 3);
    m_Times.Pass(1);
    Note(TYLossReason::RATE, "a", 4);
    EXPECT_THAT(Rows(), ElementsAre("rate a 3 0", "bytes a 3 0", "rate a 4 0"));
}

TEST_F(Losses, AreNotAddedToARowFromAClockThatWasAhead) {
    m_Times.Step(1000 * kHour);
    Note(TYLossReason::RATE, "a", 1);
    m_Times.Step(-1000 * kHour);
    Note(TYLossReason::RATE, "a", 2);
    EXPECT_THAT(Rows(), ElementsAre("rate a 1 0", "rate a 2 0"));
    EXPECT_EQ(Number("SELECT max(at) FROM losses WHERE records = 2"), m_Times.Now().wall);
}

TEST_F(Losses, NeverFillMoreThan4096Rows) {
    CTYDatabase database(m_File, CTYDatabase::Mode::READ_WRITE);
    {
        CTYTransaction transaction(database);
        for (int i = 0; i < 4200; ++i) {
            CTYLosses losses;
            losses.Count(i % 2 == 0 ? TYLossReason::RATE : TYLossReason::AGE, "a", 1, 2);
            WriteLosses(database, losses, i * kHour);
            ASSERT_LE(database.Number("SELECT count(*) FROM losses"), 4096);
        }
        transaction.Commit();
    }
    EXPECT_THAT(Column("SELECT reason || ' ' || sum(records) || ' ' || sum(playbacks) FROM losses "
                       "GROUP BY reason ORDER BY reason"),
                ElementsAre("age 2100 4200", "rate 2100 4200"));
    EXPECT_THAT(Column("SELECT application || '-' || records FROM losses ORDER BY id LIMIT 2"),
                ElementsAre("-1025", "-1024"));
    EXPECT_EQ(Number("SELECT count(*) FROM losses WHERE at > 2100 * " + std::to_string(kHour)),
              4200 - 2101);
}

}  // namespace
