// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FaultyDisk.h"
#include "KeeperFixture.h"

#include <sys/stat.h>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

namespace {

using namespace std::chrono_literals;

class ForeignFile : public CStoreFilesTest {
  protected:
    // Opens the path, and looks for changes of any file.
    void ExpectRefusal(const std::string& text) {
        const std::string before = ReadFile(m_File);
        const std::string log = ReadFile(m_File.string() + "-wal");
        CTYStoreKeeper keeper(m_File, {}, [this] { return m_Now; });
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(keeper.Add(BatchOf("p1")));
            EXPECT_THAT(keeper.Unusable(), Optional(HasSubstr(text)));
            m_Now += 1s;
        }
        EXPECT_TRUE(ReadFile(m_File) == before);
        EXPECT_TRUE(ReadFile(m_File.string() + "-wal") == log);
        EXPECT_THAT(Files(".damaged-"), IsEmpty());
        EXPECT_THAT(Files(".recover-"), IsEmpty());
    }
    void ExpectUse() {
        CTYStoreKeeper keeper(m_File, {});
        EXPECT_TRUE(keeper.Add(BatchOf("p1")));
        EXPECT_EQ(keeper.Unusable(), std::nullopt);
        EXPECT_EQ(Stored(), 1);
    }
};

constexpr const char* kForeign = "the file belongs to another application";

TEST_F(ForeignFile, IsNeitherRenamedNorChanged) {
    const std::string texts[] = {"These are my notes.", std::string(4096, '\0'), "SQLite format 3",
                                 std::string(200, 'x')};
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.substr(0, 20));
        m_Folder.Write("tallyra.db", text);
        ExpectRefusal(kForeign);
        EXPECT_THAT(Files("tallyra.db"), ElementsAre(m_File.string()));
    }
}

TEST_F(ForeignFile, IsNotSwitchedToAnotherJournalMode) {
    for (const char* pSql : {"CREATE TABLE theirs(a)", "PRAGMA application_id = 42",
                             "PRAGMA journal_mode = WAL; CREATE TABLE theirs(a)"}) {
        SCOPED_TRACE(pSql);
        std::filesystem::remove(m_File);
        Execute(pSql);
        ExpectRefusal(kForeign);
    }
}

TEST_F(ForeignFile, IsRecognisedByItsLog) {
    CFileReader writer(m_File, CTYDatabase::Mode::READ_WRITE);
    writer.Execute("PRAGMA journal_mode = WAL");
    writer.Execute("CREATE TABLE theirs(a)");
    CTemporaryFolder copy;
    for (const std::string suffix : {"", "-wal"}) {
        std::filesystem::copy_file(m_File.string() + suffix, copy.Path() / ("copy.db" + suffix));
    }
    CTYStoreKeeper keeper((copy.Path() / "copy.db").string(), {});
    EXPECT_FALSE(keeper.Open());
    EXPECT_THAT(keeper.Unusable(), Optional(HasSubstr(kForeign)));
    EXPECT_TRUE(ReadFile(copy.Path() / "copy.db") == ReadFile(m_File));
    EXPECT_TRUE(copy.Read("copy.db-wal") == ReadFile(m_File.string() + "-wal"));
}

TEST_F(ForeignFile, IsNotAnEmptyOneNorADatabaseWithoutContent) {
    m_Folder.Write("tallyra.db", "");
    ExpectUse();
    for (const char* pSql : {"PRAGMA user_version = 0", "VACUUM", "PRAGMA journal_mode = WAL"}) {
        SCOPED_TRACE(pSql);
        std::filesystem::remove(m_File);
        Execute(pSql);
        ExpectUse();
    }
}

TEST_F(ForeignFile, IsAStoreOfANewerVersionToo) {
    ASSERT_TRUE(CTYStoreKeeper(m_File, {}).Open());
    Execute("PRAGMA user_version = 1000");
    ExpectRefusal("schema version 1000");
}

TEST_F(ForeignFile, IsAnythingButARegularFile) {
    std::filesystem::create_directory(m_File);
    ASSERT_FALSE(m_Keeper.Open());
    ASSERT_THAT(m_Keeper.Unusable(), Optional(HasSubstr("not a regular file")));
    std::filesystem::remove(m_File);
    ASSERT_EQ(mkfifo(m_File.c_str(), 0600), 0);
    m_Now += 1s;
    EXPECT_FALSE(m_Keeper.Open()) << "and opening it did not wait for its other end";
}

TEST_F(ForeignFile, IsUsedOnceAnOperatorHasMovedIt) {
    m_Folder.Write("tallyra.db", "notes");
    EXPECT_FALSE(m_Keeper.Open());
    std::filesystem::remove(m_File);
    m_Now += 1s;
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p1")));
    EXPECT_EQ(m_Keeper.Unusable(), std::nullopt);
}

class MovedStore : public CStoreFilesTest {
  protected:
    void SetUp() override { ASSERT_TRUE(m_Keeper.Add(BatchOf("old"))); }
    void ExpectLine() {
        EXPECT_THAT(Errors(),
                    ElementsAre(m_File.string() +
                                " was moved, replaced or deleted; opening the path again"));
    }

    const std::string m_Moved = m_Folder.Path() / "moved.db";
};

TEST_F(MovedStore, IsReplacedBeforeTheNextBatchIsAccepted) {
    std::filesystem::rename(m_File, m_Moved);
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    EXPECT_THAT(Playbacks(m_File), ElementsAre("new"));
    EXPECT_THAT(Playbacks(m_Moved), ElementsAre("old"));
    ExpectLine();
}

TEST_F(MovedStore, MayBeDeleted) {
    for (const std::string suffix : {"", "-wal", "-shm"}) {
        std::filesystem::remove(m_File.string() + suffix);
    }
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    EXPECT_THAT(Playbacks(m_File), ElementsAre("new"));
    ExpectLine();
}

TEST_F(MovedStore, MayBeReplacedByAnotherStore) {
    ASSERT_TRUE(CTYStoreKeeper(m_Moved, {}).Add(BatchOf("theirs")));
    m_Platform.ClearLog();
    std::filesystem::rename(m_Moved, m_File);
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    EXPECT_THAT(Playbacks(m_File), ElementsAre("theirs", "new"));
    ExpectLine();
}

TEST_F(MovedStore, MayBeReplacedByAnotherApplicationsFile) {
    m_Folder.Replace("tallyra.db", "notes");
    EXPECT_FALSE(m_Keeper.Add(BatchOf("new")));
    EXPECT_THAT(m_Keeper.Unusable(), Optional(HasSubstr(kForeign)));
    EXPECT_EQ(m_Folder.Read("tallyra.db"), "notes");
}

TEST_F(MovedStore, LosesNoBatchWithItsLog) {
    std::vector<std::string> expected = {"old"};
    for (const std::string suffix : {"-wal", "-shm"}) {
        SCOPED_TRACE(suffix);
        m_Platform.ClearLog();
        std::filesystem::remove(m_File.string() + suffix);
        expected.push_back("without" + suffix);
        EXPECT_TRUE(m_Keeper.Add(BatchOf(expected.back())));
        ExpectLine();
        EXPECT_EQ(Playbacks(m_File), expected);
    }
}

TEST_F(MovedStore, DoesNotLeaveItsLogToTheNextOne) {
    CFileReader reader(m_File);
    reader.Execute("BEGIN");
    ASSERT_EQ(reader.Number("SELECT count(*) FROM records"), 1);
    ASSERT_TRUE(m_Keeper.Add(BatchOf("later")));
    ASSERT_TRUE(CTYStoreKeeper(m_Moved, {}).Add(BatchOf("theirs")));
    std::filesystem::rename(m_Moved, m_File);
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    EXPECT_THAT(Playbacks(m_File), ElementsAre("theirs", "new"));
    ASSERT_EQ(Files(".left-").size(), 2U);
    EXPECT_EQ(reader.Number("SELECT count(*) FROM records"), 1);
}

TEST_F(MovedStore, LeavesALogThatSqliteWouldDelete) {
    const std::string other = m_Folder.Path() / "other.db";
    std::filesystem::copy_file(m_File.string() + "-wal", other + "-wal");
    CTYStoreKeeper keeper(other, {});
    EXPECT_TRUE(keeper.Add(BatchOf("new")));
    EXPECT_THAT(Playbacks(other), ElementsAre("new"));
    ASSERT_EQ(Files("other.db.left-").size(), 1U);
    EXPECT_TRUE(ReadFile(Files("other.db.left-")[0]) == ReadFile(m_File.string() + "-wal"));
}

/// Tests on a file system of their own, which may be mounted only with the privilege to do so.
class SmallDisk : public CStoreFilesTest {
  protected:
    bool Mount(const char* pSize) {
        m_StoreOnDisk = m_Disk.Path() / "t.db";
        return m_Disk.Mount(pSize);
    }
    std::int64_t LogBytes() const { return CTYStoreFile(m_StoreOnDisk).LogBytes(); }

    CSmallDisk m_Disk;
    std::string m_StoreOnDisk;
};

TEST_F(SmallDisk, IsRefusedBelowItsMinimum) {
    if (!Mount("7m")) {
        GTEST_SKIP() << "cannot mount";
    }
    CTYStoreKeeper keeper(m_StoreOnDisk, {});
    EXPECT_FALSE(keeper.Open());
    EXPECT_THAT(keeper.Unusable(),
                Optional(HasSubstr("its file system has 7168 KiB, a store needs 8192")));
    EXPECT_TRUE(std::filesystem::is_empty(m_Disk.Path()));
}

TEST_F(SmallDisk, LimitsTheStoreToThreeQuarters) {
    if (!Mount("16m")) {
        GTEST_SKIP() << "cannot mount";
    }
    CTYStoreKeeper keeper(m_StoreOnDisk, {});
    ASSERT_TRUE(keeper.Open());
    EXPECT_THAT(Lines().back(), HasSubstr("keeping within 12 MiB, three quarters"));
    EXPECT_EQ(CTYStoreSpace::LimitFor(CTYStoreFile(m_StoreOnDisk), 0, 1000), 1000);
}

TEST_F(SmallDisk, HasSpaceForACheckpointAtAnyTime) {
    if (!Mount("16m")) {
        GTEST_SKIP() << "cannot mount";
    }
    CTYStoreKeeper keeper(m_StoreOnDisk, {}, [this] { return m_Now; });
    ASSERT_TRUE(keeper.Open());
    {
        CFileReader reader(m_StoreOnDisk);
        reader.Execute("BEGIN");
        reader.Number("SELECT count(*) FROM records");
        for (int i = 0; LogBytes() < (3 << 20); ++i) {
            ASSERT_TRUE(keeper.Add(BigBatch("p" + std::to_string(i))));
        }
    }
    m_Disk.Fill(std::int64_t{3} << 20);
    EXPECT_TRUE(keeper.Add(BatchOf("next"))) << "the log could not be emptied";
    EXPECT_LT(LogBytes(), 1 << 20);
    m_Disk.Fill();
    EXPECT_FALSE(keeper.Add(BatchOf("full")));
    EXPECT_THAT(Errors().back(), HasSubstr("the file system has no space left"));
    m_Disk.Empty();
    m_Now += 1s;
    EXPECT_TRUE(keeper.Add(BatchOf("last")));
}

TEST_F(SmallDisk, RecoversByItselfHoweverItFillsUp) {
    if (!Mount("8m")) {
        GTEST_SKIP() << "cannot mount";
    }
    CTYStoreKeeper keeper(m_StoreOnDisk, {}, [this] { return m_Now; });
    std::int64_t accepted = 0;
    for (int i = 0; i < 400; ++i) {
        accepted += keeper.Add(BigBatch("p" + std::to_string(i))) ? 1 : 0;
        m_Now += 1s;
    }
    EXPECT_GT(accepted, 30);
    EXPECT_LT(accepted, 400);
    EXPECT_EQ(CFileReader(m_StoreOnDisk).Number("SELECT count(*) FROM records"), accepted);
    while (keeper.Prune()) {
    }
    EXPECT_TRUE(keeper.Add(BatchOf("last"))) << "nothing was dropped, or its space is not free";
}

TEST_F(SmallDisk, IsSharedWithAFileThatWasSetAside) {
    for (const int mebibytes : {10, 12, 13}) {
        SCOPED_TRACE(mebibytes);
        if (!Mount("16m")) {
            GTEST_SKIP() << "cannot mount";
        }
        // Carries the application id.
        m_Disk.Write(
            "t.db",
            std::string(static_cast<std::size_t>(mebibytes) << 20, '.').replace(68, 4, "TYLA"));
        CTYStoreKeeper keeper(m_StoreOnDisk, {}, [this] { return m_Now; });
        for (int i = 0; i < 100; ++i) {
            EXPECT_TRUE(keeper.Add(BigBatch("p" + std::to_string(i)))) << "batch " << i;
            while (keeper.Prune()) {
            }
            m_Now += 1s;
        }
    }
}

}  // namespace
