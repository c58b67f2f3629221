// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_RECOVERYFIXTURE_H
#define TALLYRA_TESTS_SERVICE_RECOVERYFIXTURE_H

#include "KeeperFixture.h"

// What identifies a record of these tests, beside its id.
constexpr const char* kRecords =
    "SELECT bus_name || ' ' || uid || ' ' || pid || ' ' || arrival || ' ' || playback_id || ' ' || "
    "service_id || ' ' || url || ' ' || event || ' ' || param1 || ' ' || param2 || ' ' || "
    "time_sec || ' ' || padding || ' ' || url_cut || ' ' || hex(common) FROM records ORDER BY 1";

/// Stores with damaged pages, and what becomes of their records.
class CRecoveryTest : public CStoreFilesTest {
  protected:
    // Batches of three senders and two applications, each record different.
    static TYBatch BatchNumber(int number) {
        TYBatch batch = BatchOf("p" + std::to_string(number % 7), 1000 + number);
        batch.records.assign(20, batch.records[0]);
        batch.urls.assign(20, "film" + std::to_string(number % 5) + ".mp4");
        batch.urlCuts.assign(20, number % 5 == 4 ? 7 : 0);
        batch.sender.name = ":1." + std::to_string(number % 3);
        batch.sender.bus = "bus" + std::to_string(number % 2);
        for (TYMediaData& record : batch.records) {
            record.event = TY_EVENT_PLAYBACK_TIME;
            record.param1 = number;
            record.param2 = static_cast<std::int32_t>(&record - batch.records.data());
            record.time.sec = 77;
            CopyText(record.serviceID, number % 2 == 0 ? "org.example.even" : "org.example.odd");
        }
        return batch;
    }
    static void AddBatches(CTYStoreKeeper& keeper, int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_TRUE(keeper.Add(BatchNumber(i)));
        }
    }
    // A store of batches of 20 records, after an unclean end.
    void Make(int batches = 100) {
        MakeUnclean([&](CTYStoreKeeper& keeper) { AddBatches(keeper, batches); });
        m_Before = Column(kRecords);
        m_strEpoch = Column("SELECT epoch FROM store").front();
        ASSERT_EQ(m_Before.size(), 20U * static_cast<unsigned>(batches));
        m_Platform.ClearLog();
    }
    // Puts the files of another folder in the place of those in the test's.
    void Replace(const std::filesystem::path& from) const {
        for (const auto& file : std::filesystem::directory_iterator(m_Folder.Path())) {
            std::filesystem::remove(file);
        }
        std::filesystem::copy(from, m_Folder.Path());
    }
    std::int64_t Missing() const {
        return Number("SELECT coalesce(sum(records), 0) FROM losses WHERE reason = 'damaged'");
    }
    void ExpectEachOnceOrCounted() {
        const std::vector<std::string> after = Column(kRecords);
        EXPECT_TRUE(std::ranges::includes(m_Before, after)) << "a record was invented or doubled";
        EXPECT_EQ(static_cast<std::int64_t>(after.size()) + Missing(),
                  static_cast<std::int64_t>(m_Before.size()));
        EXPECT_EQ(Number("SELECT sum(records) FROM playbacks"), Stored());
        EXPECT_EQ(Number("SELECT count(*) FROM recoveries"), 0);
        EXPECT_TRUE(Files(".recover-").empty());
        EXPECT_EQ(WithoutTheirOrigin(), 0);
    }
    // Records whose origin is not where the batches of Make were put.
    std::int64_t WithoutTheirOrigin() const {
        return Number(
            "SELECT count(*) FROM entries e WHERE (SELECT count(*) FROM origins o WHERE "
            "e.id BETWEEN o.first AND o.last AND o.device = '' AND o.epoch = '" +
            m_strEpoch + "' AND o.origin + e.id - o.first = 20 * e.param1 + e.param2 + 1) <> 1");
    }

    std::vector<std::string> m_Before;
    std::string m_strEpoch;
};

#endif  // TALLYRA_TESTS_SERVICE_RECOVERYFIXTURE_H
