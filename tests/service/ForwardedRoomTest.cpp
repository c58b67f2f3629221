// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::int64_t kHour = CFakeTimes::kHour;
constexpr TYStoreLimits kOneHour{std::chrono::hours(1), std::int64_t{1} << 40};
constexpr TYStoreLimits kSmall{std::chrono::hours(24), 512 << 10};

/// What is dropped of a store whose records are forwarded to a collector.
class ForwardedRoom : public CStoreTest {
  protected:
    CTYStore& Open(TYStoreLimits limits) {
        m_pStore.reset();
        m_pStore = std::make_unique<CTYStore>(m_File, limits, m_Times.Reader());
        return *m_pStore;
    }
    void PruneAll() {
        while (m_pStore->Prune()) {
        }
    }
    // Adds playbacks of one record and about 6 KiB each.
    void Add(std::int64_t uid, int count) {
        for (int i = 0; i < count; ++i) {
            TYBatch batch = BatchOf(std::to_string(uid) + "-" + std::to_string(i));
            batch.sender = {"bus", ":1." + std::to_string(uid), uid, 1};
            batch.urls[0] = std::string(5000, 'u');
            m_pStore->Add(batch);
        }
    }
    // Adds one playback of a single run.
    void AddRun(std::size_t records) {
        m_pStore->Add(MakeBatch(std::vector<TYMediaData>(records, MakeRecord(TY_EVENT_PAUSE))));
    }
    void SetStored(const std::string& id) const {
        Execute(("INSERT OR REPLACE INTO forwarding(id, stored) VALUES(1, " + id + ")").c_str());
    }
    std::int64_t HeldBy(std::int64_t uid) const {
        return Number("SELECT count(*) FROM records WHERE uid = " + std::to_string(uid));
    }
    std::vector<std::string> Losses() const {
        return Column("SELECT reason || ' ' || playbacks || ' ' || records FROM losses ORDER BY 1");
    }
    std::vector<std::string> Ids() const { return Column("SELECT id FROM entries ORDER BY id"); }

    CFakeTimes m_Times;
    std::unique_ptr<CTYStore> m_pStore;
};

TEST_F(ForwardedRoom, AStoredRecordIsDroppedBeforeOthers) {
    Open(kSmall);
    Add(1000, 60);
    Add(1001, 80);
    // All of the smaller user is stored, and the first 20 of the larger.
    SetStored("80");
    PruneAll();
    const std::int64_t kept = Stored();
    EXPECT_LE(m_pStore->UsedBytes(), kSmall.bytes);
    EXPECT_LT(kept, 80) << "the 1000's went, although 1001 held more";
    EXPECT_EQ(HeldBy(1000), 0);
    EXPECT_EQ(HeldBy(1001), kept);
    EXPECT_EQ(Number("SELECT min(id) FROM entries"), 140 - kept + 1);
}

TEST_F(ForwardedRoom, WhatIsNotStoredStaysWhileThereIsMoreOfWhatIs) {
    Open(kSmall);
    Add(1001, 50);
    Add(1000, 20);
    Add(1002, 40);
    SetStored("70");
    PruneAll();
    EXPECT_LE(m_pStore->UsedBytes(), kSmall.bytes);
    EXPECT_EQ(HeldBy(1002), 40);
    EXPECT_GT(HeldBy(1000), 10) << "no more went than had to";
    EXPECT_THAT(Losses(), IsEmpty());
}

TEST_F(ForwardedRoom, WhatIsNotStoredIsTakenFromTheLargestUserAndCounted) {
    Open(kSmall);
    Add(1000, 20);
    Add(1001, 20);
    Add(1002, 120);
    SetStored("20");
    PruneAll();
    EXPECT_LE(m_pStore->UsedBytes(), kSmall.bytes);
    EXPECT_EQ(HeldBy(1000), 0) << "that was stored";
    EXPECT_EQ(HeldBy(1001), 20) << "the largest user gives";
    const std::string lost = std::to_string(120 - HeldBy(1002));
    EXPECT_THAT(Losses(), ElementsAre("room " + lost + " " + lost));
}

TEST_F(ForwardedRoom, WhatWasStoredIsNoLoss) {
    Open(kOneHour);
    AddRun(5);
    AddRun(5);
    SetStored("5");
    m_Times.Pass(2 * kHour);
    PruneAll();
    EXPECT_EQ(Stored(), 0);
    EXPECT_THAT(Losses(), ElementsAre("age 1 5"));
}

TEST_F(ForwardedRoom, OfARunThatIsPartlyStoredTheRestIsLost) {
    for (const auto& [stored, lost] : {std::pair(1, "age 0 9"), {4, "age 0 6"}, {9, "age 0 1"}}) {
        SCOPED_TRACE(stored);
        std::filesystem::remove(m_File);
        Open(kOneHour);
        AddRun(10);
        SetStored(std::to_string(stored));
        m_Times.Pass(2 * kHour);
        PruneAll();
        EXPECT_THAT(Losses(), ElementsAre(lost)) << "of the playback, the collector has something";
        m_pStore.reset();
    }
}

TEST_F(ForwardedRoom, ARunThatIsPartlyStoredIsNotDroppedFirst) {
    Open(kSmall);
    AddRun(2);
    Add(1001, 100);
    SetStored("1");
    PruneAll();
    EXPECT_EQ(HeldBy(1000), 2);
    SetStored("2");
    Add(1001, 10);
    PruneAll();
    EXPECT_EQ(HeldBy(1000), 0);
}

TEST_F(ForwardedRoom, AStoredRecordStaysWhileThereIsRoom) {
    Open(kOneHour);
    AddRun(3);
    SetStored("3");
    PruneAll();
    EXPECT_THAT(Ids(), ElementsAre("1", "2", "3"));
}

TEST_F(ForwardedRoom, WithoutForwardingNothingChanges) {
    std::vector<std::string> kept[3];
    std::vector<std::string> lost[3];
    const char* values[] = {nullptr, "0", "-5"};
    for (int i = 0; i < 3; ++i) {
        std::filesystem::remove(m_File);
        Open(kSmall);
        Add(1000, 20);
        Add(1001, 120);
        if (values[i] != nullptr) {
            SetStored(values[i]);
        }
        PruneAll();
        EXPECT_EQ(HeldBy(1000), 20);
        kept[i] = Ids();
        lost[i] = Losses();
        m_pStore.reset();
    }
    EXPECT_EQ(lost[0], (std::vector{"room " + std::to_string(140 - kept[0].size()) + " " +
                                    std::to_string(140 - kept[0].size())}));
    EXPECT_THAT(kept, testing::Each(kept[0]));
    EXPECT_THAT(lost, testing::Each(lost[0]));
}

TEST_F(ForwardedRoom, IsMadeWhateverTheTableSays) {
    for (const char* pStored :
         {"9223372036854775807", "(-9223372036854775807 - 1)", "1e300", "'much'", "x'00ff'"}) {
        SCOPED_TRACE(pStored);
        std::filesystem::remove(m_File);
        Open(kSmall);
        Add(1000, 20);
        Add(1001, 120);
        SetStored(pStored);
        PruneAll();
        EXPECT_LE(m_pStore->UsedBytes(), kSmall.bytes);
        EXPECT_GT(Stored(), 50);
        m_Times.Pass(25 * kHour);
        PruneAll();
        EXPECT_EQ(Stored(), 0);
        m_pStore.reset();
    }
}

}  // namespace
