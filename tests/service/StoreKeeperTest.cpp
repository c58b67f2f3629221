// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStoreKeeper.h"

#include "KeeperFixture.h"
#include "MountedFolder.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using namespace std::chrono_literals;

class StoreKeeper : public CKeeperTest {};

TEST_F(StoreKeeper, OpensItsFileAndSaysSoOnce) {
    EXPECT_TRUE(m_Keeper.Open());
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p1")));
    EXPECT_EQ(m_Keeper.Policy("any"), 1);
    EXPECT_THAT(Lines(), ElementsAre("storing records in " + m_File.string()));
}

TEST_F(StoreKeeper, OpensItsFileWhenItIsNeeded) {
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p1")));
    EXPECT_EQ(Stored(), 1);
}

TEST_F(StoreKeeper, WithoutAFolderRefusesWithOneLineAndTakesUpAgain) {
    CTYStoreKeeper keeper(m_Folder.Path() / "none" / "t.db", {}, [this] { return m_Now; });
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(keeper.Add(BatchOf("p1")));
        EXPECT_EQ(keeper.Policy("any"), std::nullopt);
        EXPECT_FALSE(keeper.Prune(0));
        m_Now += 1s;
    }
    EXPECT_THAT(Lines(), ElementsAre(AllOf(HasSubstr("cannot open the database: "),
                                           HasSubstr("none/t.db"))));
    std::filesystem::create_directory(m_Folder.Path() / "none");
    EXPECT_TRUE(keeper.Add(BatchOf("p1")));
    EXPECT_THAT(Lines().back(), HasSubstr("storing records in"));
}

TEST_F(StoreKeeper, DoesNotTryAFileThatCannotBeOpenedForEachCall) {
    CTYStoreKeeper keeper(m_Folder.Path() / "none" / "t.db", {}, [this] { return m_Now; });
    EXPECT_FALSE(keeper.Open());
    std::filesystem::create_directory(m_Folder.Path() / "none");
    EXPECT_FALSE(keeper.Open());
    m_Now += 1s;
    EXPECT_TRUE(keeper.Open());
}

TEST_F(StoreKeeper, WithALockedDatabaseRefusesWithOneLineAndTakesUpAgain) {
    ASSERT_TRUE(m_Keeper.Add(BatchOf("p1")));
    CTYDatabase other(m_File, CTYDatabase::Mode::READ_WRITE);
    {
        const CTYTransaction lock(other);
        EXPECT_FALSE(m_Keeper.Add(BatchOf("p2")));
        EXPECT_FALSE(m_Keeper.Add(BatchOf("p3")));
        EXPECT_EQ(m_Keeper.Policy("any"), 1);
        EXPECT_FALSE(m_Keeper.Add(BatchOf("p4")));
    }
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("cannot store a batch: "
                                                "database is locked")));
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p5")));
    EXPECT_THAT(Lines().back(), "can store a batch again");
    EXPECT_EQ(Stored(), 2);
}

TEST_F(StoreKeeper, WaitsForALockOnceAndNotForEachBatch) {
    ASSERT_TRUE(m_Keeper.Open());
    CTYDatabase other(m_File, CTYDatabase::Mode::READ_WRITE);
    const CTYTransaction lock(other);
    EXPECT_FALSE(m_Keeper.Add(BatchOf("p1")));
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(m_Keeper.Add(BatchOf("p1")));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
}

TEST_F(StoreKeeper, OnAFullDiskRefusesWithOneLineAndTakesUpAgain) {
    const CMountedFolder disk("1m");
    if (!disk.Problem().empty()) {
        GTEST_SKIP() << disk.Problem();
    }
    CTYStoreKeeper keeper(disk.Path() / "t.db", {}, [this] { return m_Now; });
    ASSERT_TRUE(keeper.Add(BatchOf("p1")));
    disk.Fill();
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(keeper.Add(BigBatch()));
        EXPECT_EQ(keeper.Policy("any"), 1);
    }
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("database or disk is full")));
    disk.Empty();
    EXPECT_TRUE(keeper.Add(BatchOf("p1")));
    EXPECT_THAT(Lines().back(), "can store a batch again");
    EXPECT_EQ(CFileReader(disk.Path() / "t.db").Number("SELECT count(*) FROM records"), 2);
}

TEST_F(StoreKeeper, ThatFindsAFullDiskOpensWhenThereIsRoom) {
    const CMountedFolder disk("1m");
    if (!disk.Problem().empty()) {
        GTEST_SKIP() << disk.Problem();
    }
    CTYStoreKeeper keeper(disk.Path() / "t.db", {}, [this] { return m_Now; });
    disk.Fill();
    EXPECT_FALSE(keeper.Open());
    EXPECT_FALSE(keeper.Add(BatchOf("p1")));
    EXPECT_EQ(Errors().size(), 1U);
    disk.Empty();
    m_Now += 1s;
    EXPECT_TRUE(keeper.Add(BatchOf("p1")));
}

TEST_F(StoreKeeper, OnAReadOnlyFileSystemRefusesWithOneLineAndTakesUpAgain) {
    const CMountedFolder disk("4m");
    if (!disk.Problem().empty()) {
        GTEST_SKIP() << disk.Problem();
    }
    ASSERT_TRUE(CTYStoreKeeper(disk.Path() / "t.db", {}).Add(BatchOf("p1")));
    ASSERT_TRUE(disk.SetReadOnly(true));
    m_Platform.ClearLog();
    CTYStoreKeeper keeper(disk.Path() / "t.db", {}, [this] { return m_Now; });
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(keeper.Add(BatchOf("p1")));
        EXPECT_EQ(keeper.Policy("any"), std::nullopt);
        m_Now += 1s;
    }
    EXPECT_THAT(Lines(), ElementsAre(HasSubstr("cannot open the database")));
    ASSERT_TRUE(disk.SetReadOnly(false));
    EXPECT_TRUE(keeper.Add(BatchOf("p1")));
    EXPECT_EQ(CFileReader(disk.Path() / "t.db").Number("SELECT count(*) FROM records"), 2);
}

// Root may write everywhere: it is somebody else for a while.
class CAsSomebody {
  public:
    explicit CAsSomebody(const std::filesystem::path& owned) : m_bRoot(geteuid() == 0) {
        if (m_bRoot) {
            EXPECT_EQ(chown(owned.c_str(), kSomebody, kSomebody), 0);
            EXPECT_EQ(seteuid(kSomebody), 0);
        }
    }
    ~CAsSomebody() {
        if (m_bRoot) {
            EXPECT_EQ(seteuid(0), 0);
        }
    }
    CAsSomebody(const CAsSomebody&) = delete;
    CAsSomebody& operator=(const CAsSomebody&) = delete;

  private:
    static constexpr uid_t kSomebody = 65534;

    bool m_bRoot;
};

TEST_F(StoreKeeper, InAReadOnlyFolderRefusesWithOneLineAndTakesUpAgain) {
    const CAsSomebody somebody(m_Folder.Path());
    ASSERT_EQ(chmod(m_Folder.Path().c_str(), 0500), 0);
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(m_Keeper.Add(BatchOf("p1")));
        m_Now += 1s;
    }
    EXPECT_THAT(Lines(), ElementsAre(HasSubstr("cannot open the database")));
    ASSERT_EQ(chmod(m_Folder.Path().c_str(), 0700), 0);
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p1")));
    EXPECT_EQ(Stored(), 1);
}

// Lets the process write no file beyond a size, as a failing disk would.
class CFileSizeLimit {
  public:
    explicit CFileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_Before);
        const rlimit limit{bytes, m_Before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~CFileSizeLimit() { setrlimit(RLIMIT_FSIZE, &m_Before); }
    CFileSizeLimit(const CFileSizeLimit&) = delete;
    CFileSizeLimit& operator=(const CFileSizeLimit&) = delete;

  private:
    rlimit m_Before{};
};

TEST_F(StoreKeeper, WhoseWritesFailRefusesWithOneLineAndTakesUpAgain) {
    ASSERT_TRUE(m_Keeper.Add(BatchOf("p1")));
    m_Platform.ClearLog();
    {
        const CFileSizeLimit limit(150'000);
        for (int i = 0; i < 10; ++i) {
            EXPECT_FALSE(m_Keeper.Add(BigBatch()));
            m_Now += 1s;
        }
        EXPECT_THAT(Lines(), ElementsAre(HasSubstr("cannot store a batch")));
    }
    EXPECT_TRUE(m_Keeper.Add(BigBatch()));
    EXPECT_EQ(Stored(), 2);
    EXPECT_THAT(Lines().back(), "can store a batch again");
}

TEST_F(StoreKeeper, RefusesAnotherApplicationsFileAndLeavesItThere) {
    CTYDatabase(m_File, CTYDatabase::Mode::READ_WRITE).Execute("CREATE TABLE theirs(a)");
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(m_Keeper.Add(BatchOf("p1")));
        m_Now += 1s;
    }
    EXPECT_THAT(Lines(), ElementsAre(HasSubstr("the database belongs to another application")));
    EXPECT_THAT(CFileReader(m_File).Column("SELECT name FROM sqlite_schema"),
                ElementsAre("theirs"));
}

TEST_F(StoreKeeper, OpensAnotherFileOnceItsOwnWasMovedAway) {
    ASSERT_TRUE(m_Keeper.Add(BatchOf("old")));
    std::filesystem::rename(m_File, m_Folder.Path() / "moved.db");
    m_Keeper.Reopen();
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    EXPECT_THAT(CFileReader(m_File).Column("SELECT playback_id FROM records"), ElementsAre("new"));
    EXPECT_THAT(CFileReader(m_Folder.Path() / "moved.db").Column("SELECT playback_id FROM records"),
                ElementsAre("old"));
}

TEST_F(StoreKeeper, LeavesAMovedFileWholeThoughSomebodyReadsIt) {
    ASSERT_TRUE(m_Keeper.Add(BatchOf("old")));
    CFileReader reader(m_File);
    ASSERT_EQ(reader.Number("SELECT count(*) FROM records"), 1);
    std::filesystem::rename(m_File, m_Folder.Path() / "moved.db");
    m_Keeper.Reopen();
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    EXPECT_THAT(CFileReader(m_Folder.Path() / "moved.db").Column("SELECT playback_id FROM records"),
                ElementsAre("old"));
    EXPECT_THAT(CFileReader(m_File).Column("SELECT playback_id FROM records"), ElementsAre("new"));
}

TEST_F(StoreKeeper, KeepsTheLogOfAMovedFileWhileSomebodyHoldsAnOldStateOfIt) {
    ASSERT_TRUE(m_Keeper.Add(BatchOf("old")));
    CFileReader reader(m_File);
    reader.Execute("BEGIN");
    ASSERT_EQ(reader.Number("SELECT count(*) FROM records"), 1);
    ASSERT_TRUE(m_Keeper.Add(BatchOf("later")));
    std::filesystem::rename(m_File, m_Folder.Path() / "moved.db");
    m_Keeper.Reopen();
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    EXPECT_EQ(reader.Number("SELECT count(*) FROM records"), 1);
    const std::string line = Errors().at(0);
    ASSERT_THAT(line, HasSubstr("records of the moved file are still in its log, now "));
    std::filesystem::rename(line.substr(line.rfind(' ') + 1), m_Folder.Path() / "moved.db-wal");
    EXPECT_THAT(CFileReader(m_Folder.Path() / "moved.db")
                    .Column("SELECT playback_id FROM records ORDER BY id"),
                ElementsAre("old", "later"));
}

TEST_F(StoreKeeper, InMemoryLosesNothingWhenItIsOpenedAgain) {
    CTYStoreKeeper keeper(":memory:", {24h, 1}, [this] { return m_Now; });
    ASSERT_TRUE(keeper.Add(BatchOf("p1")));
    keeper.Reopen();
    ASSERT_TRUE(keeper.HasGrown());
    EXPECT_TRUE(keeper.Prune(0));
}

TEST_F(StoreKeeper, HasNotGrownWhileItIsClosed) {
    CTYStoreKeeper keeper(m_File, {24h, 0});
    EXPECT_FALSE(keeper.HasGrown());
    ASSERT_TRUE(keeper.Open());
    EXPECT_TRUE(keeper.HasGrown());
}

}  // namespace
