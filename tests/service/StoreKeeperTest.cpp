// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "AsUser.h"
#include "FaultyDisk.h"
#include "KeeperFixture.h"

#include <sys/stat.h>

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::Truly;

namespace {

using namespace std::chrono_literals;
using Call = CFaultyDisk::Call;

class StoreKeeper : public CStoreFilesTest {
  protected:
    // Tries ten times, a second apart.
    void ExpectRefusal(CTYStoreKeeper& keeper, std::optional<int> policy) {
        for (int i = 0; i < 10; ++i) {
            EXPECT_FALSE(keeper.Add(BigBatch()));
            EXPECT_EQ(ValueOf(keeper.Policy("any")), policy);
            m_Now += 1s;
        }
    }
    const std::filesystem::path m_Moved = m_Folder.Path() / "moved.db";
};

TEST_F(StoreKeeper, OpensItsFileWhenNeededAndLogsItOnce) {
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p1")));
    EXPECT_TRUE(m_Keeper.Open());
    EXPECT_EQ(ValueOf(m_Keeper.Policy("any")), 1);
    EXPECT_EQ(Stored(), 1);
    EXPECT_THAT(Lines(), ElementsAre("storing records in " + m_File.string()));
}

TEST_F(StoreKeeper, LogsTheUpgradeOfAnOldStoreAndItsTime) {
    WriteStore(m_File, STORES "/store-version-1.sql");
    EXPECT_TRUE(m_Keeper.Open());
    EXPECT_THAT(Lines(), ElementsAre("upgrading " + m_File.string() +
                                         " from schema version 1 to 4; no record is stored "
                                         "meanwhile",
                                     "upgraded " + m_File.string() + " in 0.0 s",
                                     "storing records in " + m_File.string()));
}

TEST_F(StoreKeeper, OpensAMissingFolderOnceItIsThere) {
    CTYStoreKeeper keeper(m_Folder.Path() / "none" / "t.db", {}, [this] { return m_Now; });
    ExpectRefusal(keeper, std::nullopt);
    EXPECT_FALSE(keeper.Prune());
    EXPECT_THAT(Lines(), ElementsAre(AllOf(HasSubstr("cannot open the database: "),
                                           HasSubstr("none/t.db"))));
    std::filesystem::create_directory(m_Folder.Path() / "none");
    EXPECT_FALSE(keeper.Open()) << "a second has not passed yet";
    m_Now += 1s;
    EXPECT_TRUE(keeper.Add(BatchOf("p1")));
    EXPECT_THAT(Lines().back(), HasSubstr("storing records in"));
}

TEST_F(StoreKeeper, RefusesABatchWhileTheDatabaseIsLocked) {
    ASSERT_TRUE(m_Keeper.Add(BatchOf("p1")));
    CTYDatabase other(m_File, CTYDatabase::Mode::READ_WRITE);
    {
        const CTYTransaction lock(other);
        EXPECT_FALSE(m_Keeper.Add(BatchOf("p2")));
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < 10; ++i) {
            EXPECT_FALSE(m_Keeper.Add(BatchOf("p3")));
            EXPECT_EQ(ValueOf(m_Keeper.Policy("any")), 1);
        }
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s) << "waited for the lock each time";
    }
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("cannot store a batch: database is locked")));
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p5")));
    EXPECT_THAT(Lines().back(), "can store a batch again");
    EXPECT_EQ(Stored(), 2);
}

const struct {
    int result;
    const char* pLine;
    std::optional<int> policy;
} kWriteFaults[] = {
    {SQLITE_FULL, "cannot store a batch: database or disk is full", 1},
    {SQLITE_IOERR_WRITE, "cannot store a batch: disk I/O error", std::nullopt},
    {SQLITE_READONLY, "cannot store a batch: attempt to write a readonly", std::nullopt}};

TEST_F(StoreKeeper, RefusesABatchWhileWritesFail) {
    CFaultyDisk disk;
    ASSERT_TRUE(m_Keeper.Add(BatchOf("p1")));
    std::int64_t stored = 1;
    for (const auto& fault : kWriteFaults) {
        SCOPED_TRACE(fault.pLine);
        m_Platform.ClearLog();
        disk.Fail(Call::WRITE, fault.result);
        ExpectRefusal(m_Keeper, fault.policy);
        // A full disk leaves the file open; after other errors it is opened again.
        EXPECT_THAT(Lines(), ElementsAre(HasSubstr(fault.pLine)));
        disk.Repair();
        EXPECT_TRUE(m_Keeper.Add(BigBatch()));
        EXPECT_THAT(Lines().back(), "can store a batch again");
        EXPECT_EQ(Stored(), ++stored);
    }
}

const struct {
    Call call;
    int result;
    const char* pError;
} kOpenFaults[] = {{Call::OPEN, SQLITE_CANTOPEN, "unable to open database file"},
                   {Call::WRITE, SQLITE_FULL, "database or disk is full"},
                   {Call::SYNC, SQLITE_IOERR_FSYNC, "disk I/O error"},
                   {Call::READ_ONLY, SQLITE_CANTOPEN, "unable to open database file"}};

TEST_F(StoreKeeper, OpensItsFileOnceTheDiskWorks) {
    CFaultyDisk disk;
    for (const auto& fault : kOpenFaults) {
        SCOPED_TRACE(fault.pError);
        const std::string file = m_File.string() + std::to_string(&fault - kOpenFaults);
        if (fault.call == Call::READ_ONLY) {
            ASSERT_TRUE(CTYStoreKeeper(file, {}).Open());
        }
        m_Platform.ClearLog();
        CTYStoreKeeper keeper(file, {}, [this] { return m_Now; });
        disk.Fail(fault.call, fault.result);
        ExpectRefusal(keeper, std::nullopt);
        EXPECT_THAT(Lines(), ElementsAre(AllOf(HasSubstr("cannot open the database: "),
                                               HasSubstr(fault.pError))));
        disk.Repair();
        EXPECT_TRUE(keeper.Add(BatchOf("p1")));
        EXPECT_THAT(Playbacks(file), ElementsAre("p1"));
    }
}

/// The faults above on a real file system, which may be mounted only with the privilege to do so.
class MountedStoreKeeper : public StoreKeeper {
  protected:
    void SetUp() override {
        if (!m_Disk.Mount("8m")) {
            GTEST_SKIP() << "cannot mount; CFaultyDisk injects the same faults without a mount";
        }
        ASSERT_TRUE(CTYStoreKeeper(m_Stored, {}).Add(BatchOf("p1")));
        m_Platform.ClearLog();
    }

    CSmallDisk m_Disk;
    const std::string m_Stored = m_Disk.Path() / "t.db";
};

TEST_F(MountedStoreKeeper, RefusesABatchWhileTheFileSystemIsFull) {
    CTYStoreKeeper keeper(m_Stored, {}, [this] { return m_Now; });
    ASSERT_TRUE(keeper.Open());
    m_Disk.Fill();
    ExpectRefusal(keeper, 1);
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("the file system has no space left")));
    m_Disk.Empty();
    EXPECT_TRUE(keeper.Add(BatchOf("p2")));
    EXPECT_THAT(Playbacks(m_Stored), ElementsAre("p1", "p2"));
}

TEST_F(MountedStoreKeeper, OpensItsFileOnceTheFileSystemIsWritable) {
    CTYStoreKeeper keeper(m_Stored, {}, [this] { return m_Now; });
    ASSERT_TRUE(m_Disk.SetReadOnly(true));
    ExpectRefusal(keeper, std::nullopt);
    EXPECT_THAT(Lines(), ElementsAre(HasSubstr("cannot open the database")));
    ASSERT_TRUE(m_Disk.SetReadOnly(false));
    EXPECT_TRUE(keeper.Add(BatchOf("p2")));
    EXPECT_THAT(Playbacks(m_Stored), ElementsAre("p1", "p2"));
}

TEST_F(StoreKeeper, RefusesAnotherApplicationsFileAndDoesNotChangeIt) {
    Execute("CREATE TABLE theirs(a)");
    ExpectRefusal(m_Keeper, std::nullopt);
    EXPECT_THAT(Lines(), ElementsAre(HasSubstr("the file belongs to another application")));
    EXPECT_THAT(Column("SELECT name FROM sqlite_schema"), ElementsAre("theirs"));
}

TEST_F(StoreKeeper, ReopensItsPathAfterTheFileWasMoved) {
    for (const bool isRead : {false, true}) {
        SCOPED_TRACE(isRead);
        const std::string file = m_File.string() + (isRead ? "read" : "idle");
        CTYStoreKeeper keeper(file, {});
        ASSERT_TRUE(keeper.Add(BatchOf("old")));
        std::optional<CFileReader> reader;
        if (isRead) {
            reader.emplace(file);
            ASSERT_EQ(reader->Number("SELECT count(*) FROM records"), 1);
        }
        std::filesystem::rename(file, file + "-moved");
        keeper.Reopen();
        EXPECT_TRUE(keeper.Add(BatchOf("new")));
        EXPECT_THAT(Playbacks(file), ElementsAre("new"));
        EXPECT_THAT(Playbacks(file + "-moved"), ElementsAre("old"));
    }
}

TEST_F(StoreKeeper, KeepsTheLogOfAMovedFileForItsReader) {
    ASSERT_TRUE(m_Keeper.Add(BatchOf("old")));
    CFileReader reader(m_File);
    reader.Execute("BEGIN");
    ASSERT_EQ(reader.Number("SELECT count(*) FROM records"), 1);
    ASSERT_TRUE(m_Keeper.Add(BatchOf("later")));
    std::filesystem::rename(m_File, m_Moved);
    m_Keeper.Reopen();
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    EXPECT_EQ(reader.Number("SELECT count(*) FROM records"), 1);
    const std::string line = Errors().at(0);
    ASSERT_THAT(line, HasSubstr("records of the moved file are still in its log, now "));
    std::filesystem::rename(line.substr(line.rfind(' ') + 1), m_Moved.string() + "-wal");
    EXPECT_THAT(Playbacks(m_Moved), ElementsAre("old", "later"));
}

TEST_F(StoreKeeper, KeepsAnInMemoryStoreWhenReopened) {
    CTYStoreKeeper keeper(":memory:", {24h, 1}, [this] { return m_Now; });
    ASSERT_TRUE(keeper.Add(BatchOf("p1")));
    keeper.Reopen();
    ASSERT_TRUE(keeper.HasGrown());
    EXPECT_TRUE(keeper.Prune());
    EXPECT_FALSE(std::filesystem::exists(":memory:"));
}

TEST_F(StoreKeeper, WritesLossesAfterASecondOrWhenItEnds) {
    const char* pLosses =
        "SELECT reason || ' ' || application || ' ' || records FROM losses ORDER BY id";
    {
        CTYStoreKeeper keeper(m_File, {}, [this] { return m_Now; });
        ASSERT_TRUE(keeper.Open());
        keeper.CountLoss(TYLossReason::RATE, "one", 3);
        keeper.CountLoss(TYLossReason::RATE, "one", 4);
        EXPECT_TRUE(keeper.HasLosses());
        EXPECT_FALSE(keeper.HasGrown());
        m_Now += 1s;
        EXPECT_TRUE(keeper.HasGrown());
        keeper.Prune();
        EXPECT_FALSE(keeper.HasLosses() || keeper.HasGrown());
        EXPECT_THAT(Column(pLosses), ElementsAre("rate one 7"));
        keeper.CountLoss(TYLossReason::POLICY, "two", 1);
        EXPECT_EQ(keeper.State().refused, 8);
    }
    EXPECT_THAT(Column(pLosses), ElementsAre("rate one 7", "policy two 1"));
}

TEST_F(StoreKeeper, KeepsLossesWhileTheyCannotBeWritten) {
    m_Folder.Write("tallyra.db", "notes");
    EXPECT_FALSE(m_Keeper.Add(BatchOf("p1")));
    m_Now += 1s;
    EXPECT_FALSE(m_Keeper.Prune());
    EXPECT_TRUE(m_Keeper.HasLosses());
    std::filesystem::remove(m_File);
    m_Now += 1s;
    m_Keeper.Prune();
    EXPECT_EQ(Number("SELECT sum(records) FROM losses WHERE reason = 'full'"), 1);
}

TEST_F(StoreKeeper, LogsAStepOfTheWallClockOnceAndDropsNothing) {
    CFakeTimes times;
    CTYStoreKeeper keeper(
        m_File, {24h}, [this] { return m_Now; }, times.Reader());
    ASSERT_TRUE(keeper.Add(BatchOf("p1")));
    for (const int days : {40, -40}) {
        m_Platform.ClearLog();
        times.Step(days * 24 * CFakeTimes::kHour);
        keeper.Prune();
        keeper.Prune();
        EXPECT_THAT(Lines(),
                    ElementsAre("the wall clock stepped by " + std::to_string(days * 86400) +
                                ".000 s; ages do not change"));
    }
    EXPECT_TRUE(keeper.Add(BatchOf("p2")));
    EXPECT_EQ(Stored(), 2);
}

TEST_F(StoreKeeper, HasNotGrownWhileClosed) {
    CTYStoreKeeper keeper(m_File, {24h, 0});
    EXPECT_FALSE(keeper.HasGrown());
    ASSERT_TRUE(keeper.Open());
    EXPECT_TRUE(keeper.HasGrown());
}

// Carries the application id, so it is known as ours.
std::string Garbage(const std::string& begin = "this was a database, and is none any more") {
    return (begin + std::string(100, '.')).replace(68, 4, "TYLA");
}

class DamagedStore : public StoreKeeper {
  protected:
    void WriteFile(const std::string& text) const { m_Folder.Write("tallyra.db", text); }
};

TEST_F(DamagedStore, IsRenamedWithTheTime) {
    WriteFile(Garbage());
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p1")));
    ASSERT_THAT(Aside(), SizeIs(1));
    EXPECT_THAT(Aside()[0].filename().string(),
                MatchesRegex("tallyra.db.damaged-20[0-9][0-9][01][0-9][0-3][0-9]T[0-9]{6}Z"));
    EXPECT_EQ(ReadFile(Aside()[0]), Garbage());
    EXPECT_EQ(Stored(), 1);
    EXPECT_THAT(Lines(), ElementsAre(HasSubstr("file is not a database"),
                                     "renamed the damaged database to " + Aside()[0].string(),
                                     "storing records in " + m_File.string()));
}

TEST_F(DamagedStore, IsNotReplacedByOneOfTheSameSecond) {
    for (const char* pText : {"first damage, and it is long", "second damage, and it is long"}) {
        WriteFile(Garbage(pText));
        EXPECT_TRUE(CTYStoreKeeper(m_File, {}).Add(BatchOf("p1")));
    }
    ASSERT_THAT(Aside(), SizeIs(2));
    EXPECT_NE(ReadFile(Aside()[0]), ReadFile(Aside()[1]));
    EXPECT_EQ(Errors().size(), 4U);
}

TEST_F(DamagedStore, IsFoundByItsPagesToo) {
    const std::function<std::string(std::string)> damages[] = {
        [](std::string content) {
            std::fill(content.begin() + 4096, content.end(), '\x5a');
            return content;
        },
        [](const std::string& content) { return content.substr(0, 10'000); }};
    for (const auto& damage : damages) {
        std::filesystem::remove(m_File);
        ASSERT_TRUE(CTYStoreKeeper(m_File, {}).Add(BigBatch()));
        const std::size_t before = Aside().size();
        const std::string damaged = damage(ReadFile(m_File));
        WriteFile(damaged);
        EXPECT_TRUE(CTYStoreKeeper(m_File, {}).Add(BatchOf("p2")));
        ASSERT_THAT(Aside(), SizeIs(before + 1));
        EXPECT_EQ(Stored(), 1);
        EXPECT_THAT(Aside(), Contains(Truly([&](const std::filesystem::path& file) {
                        return ReadFile(file).substr(4096) == damaged.substr(4096);
                    })));
    }
}

TEST_F(DamagedStore, IsNotAnEmptyFile) {
    WriteFile("");
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p1")));
    EXPECT_THAT(Aside(), IsEmpty());
}

TEST_F(DamagedStore, IsRefusedWhileItCannotBeRenamed) {
    WriteFile(Garbage());
    for (const auto& path : {m_Folder.Path(), m_File}) {
        ASSERT_EQ(chown(path.c_str(), geteuid() == 0 ? kNobody : geteuid(), -1), 0);
    }
    const CAsUser user(kNobody);
    ASSERT_EQ(chmod(m_Folder.Path().c_str(), 0500), 0);
    ExpectRefusal(m_Keeper, std::nullopt);
    EXPECT_THAT(Lines(), ElementsAre(HasSubstr("file is not a database"),
                                     "cannot rename the damaged " + m_File.string() +
                                         ": Permission denied"));
    ASSERT_EQ(chmod(m_Folder.Path().c_str(), 0700), 0);
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p1")));
    EXPECT_THAT(Aside(), SizeIs(1));
}

}  // namespace
