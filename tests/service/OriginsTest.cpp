// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

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

}  // namespace
