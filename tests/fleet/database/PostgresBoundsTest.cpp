// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PostgresFixture.h"
#include "TYCoverage.h"
#include "TYSourceTable.h"

namespace {

/// A test of what a hostile device can make the database hold.
class CPostgresBoundsTest : public CPostgresTest {
  protected:
    /// @return batches of one record each, with a gap before each
    static Batches WithGaps(const TYForwardedBatch& batch, std::size_t count) {
        Batches batches(count, PartOf(batch, 0, 1));
        for (std::size_t i = 0; i < count; ++i) {
            batches[i].first = static_cast<std::int64_t>(2 * i + 2);
            batches[i].after = batches[i].first - 1;
        }
        return batches;
    }

    /// @return batches of one record each, of one epoch each
    static Batches WithEpochs(const TYForwardedBatch& batch, std::size_t count) {
        Batches batches(count, PartOf(batch, 0, 1));
        for (std::size_t i = 0; i < count; ++i) {
            const std::string digits = std::to_string(i);
            batches[i].epoch.replace(batches[i].epoch.size() - digits.size(), digits.size(),
                                     digits);
        }
        return batches;
    }

    const TYForwardedBatch m_Batch = CFleetDevice(1).Next(m_nNow);
};

TEST_F(CPostgresBoundsTest, RefusesTooManyGaps) {
    CTYPostgresDatabase database(Url());
    const Batches batches = WithGaps(m_Batch, CTYCoverage::kMostRanges + 1);
    database.Add({batches.data(), CTYCoverage::kMostRanges});
    EXPECT_THAT(
        [&] {
            database.Add({&batches.back(), 1});
        },
        testing::ThrowsMessage<std::invalid_argument>("too many gaps"));
    EXPECT_EQ(Stored(), CTYCoverage::kMostRanges);
    TYForwardedBatch range = batches.back();
    range.records.clear();
    database.Refuse("too many gaps", &range, batches.back().Last());
    EXPECT_EQ(Number("SELECT messages FROM refusals"), 1);
    TYForwardedBatch filling = PartOf(m_Batch, 0, 3);
    EXPECT_EQ(database.Add({&filling, 1}).front().stored, 4);
}

TEST_F(CPostgresBoundsTest, RefusesTooManyEpochs) {
    CTYPostgresDatabase database(Url());
    const Batches batches = WithEpochs(m_Batch, CTYSourceTable::kMostEpochs + 1);
    database.Add({batches.data(), CTYSourceTable::kMostEpochs});
    EXPECT_THAT(
        [&] {
            database.Add({&batches.back(), 1});
        },
        testing::ThrowsMessage<std::invalid_argument>("too many epochs"));
    database.Refuse("too many epochs", &batches.back(), 1);
    EXPECT_EQ(Number("SELECT messages FROM refusals"), 1);
    EXPECT_EQ(Number("SELECT count(*) FROM sources"), CTYSourceTable::kMostEpochs);
    TYForwardedBatch more = PartOf(m_Batch, 1, 1);
    more.epoch = batches.front().epoch;
    EXPECT_EQ(CTYPostgresDatabase(Url()).Add({&more, 1}).front().stored, 2);
}

TEST_F(CPostgresBoundsTest, KeepsItsCachesWhenItRefusesABatch) {
    CTYPostgresDatabase database(Url());
    TYForwardedBatch batch = PartOf(m_Batch, 0, 1);
    const Batches gaps = WithGaps(batch, CTYCoverage::kMostRanges + 2);
    TYForwardedBatch huge = batch;
    huge.first = std::int64_t{1} << 62U;
    database.Add({&batch, 1});
    EXPECT_THROW(database.Add({&huge, 1}), std::invalid_argument);
    EXPECT_THROW(database.Add(gaps), std::invalid_argument);
    batch.after = 1;
    batch.first = 2;
    database.Add({&batch, 1});
    EXPECT_EQ(Stored(), 2);
    EXPECT_EQ(Number("SELECT count(*) FROM contexts"), 1);
}

TEST_F(CPostgresBoundsTest, RefusesImpossibleIdsWithoutTheDatabase) {
    CTYPostgresDatabase database(Url());
    TYForwardedBatch huge = m_Batch;
    huge.first = std::int64_t{1} << 62U;
    Query("ALTER TABLE devices RENAME TO elsewhere");
    EXPECT_THROW(database.Add({&huge, 1}), std::invalid_argument);
}

}  // namespace
