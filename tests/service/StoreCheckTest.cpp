// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStoreCheck.h"

#include "RecoveryFixture.h"

using testing::IsEmpty;

namespace {

using namespace std::chrono_literals;

using Check = CRecoveryTest;

TEST_F(Check, FindsNothingInAnIntactStore) {
    Make();
    CTYStoreCheck check(m_File);
    EXPECT_TRUE(Eventually([&] { return check.IsDone(); }));
    EXPECT_EQ(check.Damage(), "");
    EXPECT_TRUE(m_Keeper.Open());
    Finish(m_Keeper);
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_EQ(Column(kRecords), m_Before);
}

TEST_F(Check, IsMadeAfterAnUncleanEndOnly) {
    Make();
    ASSERT_TRUE(CTYStoreKeeper(m_File, {}).Open());
    ASSERT_GE(DamagePages("name = 'entries' AND pagetype = 'leaf' AND pageno % 5 = 0"), 1U);
    EXPECT_TRUE(m_Keeper.Open());
    EXPECT_FALSE(m_Keeper.Prune());
    EXPECT_FALSE(Eventually([&] { return m_Keeper.HasGrown(); }, kShortWhile));
    EXPECT_THAT(Aside(), IsEmpty());
}

/// While alive, reading takes long for SQLite in all threads but the one that made this.
class CSlowDisk {
  public:
    CSlowDisk() {
        s_Spared = std::this_thread::get_id();
        m_pVfs->xSetSystemCall(m_pVfs, "pread64", reinterpret_cast<sqlite3_syscall_ptr>(&Read));
    }
    ~CSlowDisk() { m_pVfs->xSetSystemCall(m_pVfs, "pread64", nullptr); }
    CSlowDisk(const CSlowDisk&) = delete;
    CSlowDisk& operator=(const CSlowDisk&) = delete;

  private:
    static ssize_t Read(int fd, void* pBytes, std::size_t size, off64_t offset) {
        if (std::this_thread::get_id() != s_Spared) {
            std::this_thread::sleep_for(5ms);
        }
        return pread64(fd, pBytes, size, offset);
    }

    // Set before another thread reads.
    static inline std::thread::id s_Spared;

    sqlite3_vfs* m_pVfs = sqlite3_vfs_find(nullptr);
};

TEST_F(Check, EndsSoonWhenItIsNotNeededAnyMore) {
    MakeUnclean([](CTYStoreKeeper& keeper) { AddBatches(keeper, 1500); });
    ASSERT_GT(std::filesystem::file_size(m_File), 200U * 4096);
    const CSlowDisk disk;
    const auto begin = std::chrono::steady_clock::now();
    {
        const CTYStoreCheck check(m_File);
        std::this_thread::sleep_for(50ms);
        EXPECT_FALSE(check.IsDone());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms) << "the whole file takes a second";
}

TEST_F(Check, GivesWayWhenItKeepsTheLog) {
    MakeUnclean([](CTYStoreKeeper& keeper) { AddBatches(keeper, 1500); });
    const CSlowDisk disk;
    CTYStoreKeeper keeper(m_File, {24h, std::int64_t{3} << 20}, [this] { return m_Now; });
    ASSERT_TRUE(keeper.Open());
    int added = 0;
    while (added < 100 && keeper.Add(BigBatch("p" + std::to_string(added)))) {
        ++added;
    }
    EXPECT_EQ(added, 100) << "the check kept the log from being emptied";
}

}  // namespace
