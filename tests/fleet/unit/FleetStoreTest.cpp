// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FleetFixture.h"
#include "TYFleetStore.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class FleetStore : public CStoreTest {
  protected:
    /// @return the watermark
    std::int64_t Add(const TYForwardedBatch& batch) {
        return m_Store.Add({&batch, 1}).at(0).stored;
    }
    /// @return the param1 of all records, in the order in which they are stored
    std::vector<std::string> Ids() { return Column("SELECT param1 FROM entries ORDER BY id"); }

    CTYFleetStore m_Store{m_File, {}};
};

TEST_F(FleetStore, StoresEachRecordOnceHoweverOftenItComes) {
    EXPECT_EQ(Add(ForwardedBatch(0, 1, 3)), 3);
    EXPECT_EQ(Add(ForwardedBatch(0, 1, 3)), 3);
    EXPECT_EQ(Add(ForwardedBatch(1, 2, 4)), 5);
    EXPECT_THAT(Ids(), ElementsAre("1", "2", "3", "4", "5"));
}

TEST_F(FleetStore, StopsTheWatermarkAtAGap) {
    EXPECT_EQ(Add(ForwardedBatch(5, 6, 1)), 0);
    EXPECT_EQ(Add(ForwardedBatch(0, 1, 2)), 2);
    EXPECT_EQ(Add(ForwardedBatch(2, 3, 3)), 6);
    EXPECT_THAT(Column("SELECT first || '-' || last FROM coverage"), ElementsAre("1-6"));
}

TEST_F(FleetStore, PassesOverWhatTheDeviceHasNot) {
    EXPECT_EQ(Add(ForwardedBatch(0, 10, 1)), 10);
    EXPECT_EQ(Add(ForwardedBatch(10, 100, 0)), 99);
}

TEST_F(FleetStore, KeepsDevicesAndEpochsApart) {
    TYForwardedBatch other = ForwardedBatch(0, 1, 3);
    other.device = "tv2";
    TYForwardedBatch later = ForwardedBatch(0, 1, 2);
    later.epoch = kOtherEpoch;
    Add(ForwardedBatch(0, 1, 3));
    EXPECT_EQ(Add(other), 3);
    EXPECT_EQ(Add(later), 2);
    EXPECT_EQ(Stored(), 8);
    EXPECT_EQ(Number("SELECT count(DISTINCT bus_name) FROM records"), 2);
    EXPECT_EQ(m_Store.StoredUpTo("tv1", kEpoch), 3);
    EXPECT_EQ(m_Store.StoredUpTo("tv3", kEpoch), 0);
}

TEST_F(FleetStore, DoesNotStoreARecoveredRecordThatCameBeforeTheDamage) {
    Add(ForwardedBatch(0, 1, 5));
    TYForwardedBatch recovered = ForwardedBatch(0, 1, 4);
    recovered.epoch = kOtherEpoch;
    recovered.origin = {kEpoch, 4};
    recovered.records[2].param1 = 6;
    recovered.records[3].param1 = 7;
    EXPECT_EQ(Add(recovered), 4);
    EXPECT_THAT(Ids(), ElementsAre("1", "2", "3", "4", "5", "6", "7"));
    EXPECT_EQ(m_Store.StoredUpTo("tv1", kEpoch), 7);
}

TEST_F(FleetStore, RemembersTheKeyOfEachEntry) {
    Add(ForwardedBatch(0, 1, 4));
    EXPECT_THAT(
        Column("SELECT first || '-' || last || ' ' || device || ' ' || origin FROM origins"),
        ElementsAre("1-2 tv1 1", "3-4 tv1 3"));
    EXPECT_THAT(Column("SELECT arrival FROM entries"), ElementsAre("1001", "1001", "1002", "1002"));
}

TEST_F(FleetStore, FindsBatchesThatWouldBeOutOfOrder) {
    const TYForwardedBatch batches[] = {ForwardedBatch(8, 9, 4), ForwardedBatch(4, 5, 4),
                                        ForwardedBatch(0, 1, 4)};
    EXPECT_THAT(m_Store.TooEarly(batches), IsEmpty());
    EXPECT_THAT(m_Store.TooEarly({batches, 2}), testing::UnorderedElementsAre(0, 1));
    m_Store.Add(batches);
    EXPECT_THAT(Ids(), ElementsAre("1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"));
}

TEST_F(FleetStore, CoversTheIdsOfARefusedBatch) {
    const TYForwardedBatch range = ForwardedBatch(0, 1, 0);
    m_Store.Refuse("malformed", &range, 24);
    m_Store.Refuse("malformed", nullptr, 0);
    EXPECT_EQ(m_Store.StoredUpTo("tv1", kEpoch), 24);
    EXPECT_EQ(Number("SELECT sum(records) FROM losses WHERE reason = 'bad_batch'"), 2);
    EXPECT_THAT(Ids(), IsEmpty());
}

TEST_F(FleetStore, BelongsToOneCollector) {
    EXPECT_THROW(CTYFleetStore(m_File, {}), CTYDatabaseUnavailable);
}

// A damaged page is no fault of the records: they stay with their devices.
TEST_F(FleetStore, IsUnavailableWhenItsTablesAreBroken) {
    Execute("ALTER TABLE coverage RENAME COLUMN last TO final");
    EXPECT_THROW(Add(ForwardedBatch(0, 1, 3)), CTYDatabaseUnavailable);
}

TEST_F(FleetStore, IsUnavailableWhileAnotherProcessHoldsTheLock) {
    CFileReader other(m_File, CTYDatabase::Mode::READ_WRITE);
    other.Execute("BEGIN IMMEDIATE");
    EXPECT_THROW(Add(ForwardedBatch(0, 1, 3)), CTYDatabaseUnavailable);
    other.Execute("ROLLBACK");
    EXPECT_EQ(Add(ForwardedBatch(0, 1, 3)), 3);
}

}  // namespace
