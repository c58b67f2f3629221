// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FaultySystem.h"
#include "KeeperFixture.h"
#include "TYStoreCheck.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::SizeIs;
using testing::StartsWith;

namespace {

using namespace std::chrono_literals;

// What identifies a record of these tests, beside its id.
constexpr const char* kRecords =
    "SELECT bus_name || ' ' || uid || ' ' || pid || ' ' || arrival || ' ' || playback_id || ' ' || "
    "service_id || ' ' || url || ' ' || event || ' ' || param1 || ' ' || param2 || ' ' || "
    "time_sec || ' ' || padding || ' ' || hex(common) FROM records ORDER BY 1";

class Recovery : public CStoreFilesTest {
  protected:
    // Batches of three senders and two applications, each record different.
    static TYBatch BatchNumber(int number) {
        TYBatch batch = BatchOf("p" + std::to_string(number % 7), 1000 + number);
        batch.records.assign(20, batch.records[0]);
        batch.urls.assign(20, "film" + std::to_string(number % 5) + ".mp4");
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
    // A store of 20 times 100 records, after an unclean end.
    void Make() {
        MakeUnclean([](CTYStoreKeeper& keeper) { AddBatches(keeper, 100); });
        m_Before = Column(kRecords);
        ASSERT_THAT(m_Before, SizeIs(2000));
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
        EXPECT_THAT(Files(".recover-"), IsEmpty());
    }

    std::vector<std::string> m_Before;
};

TEST_F(Recovery, CopiesWhatCanBeReadOfAStoreThatTheCheckFindsDamaged) {
    Make();
    ASSERT_GE(DamagePages("name = 'entries' AND pagetype = 'leaf' AND pageno % 5 = 0"), 2U);
    EXPECT_TRUE(m_Keeper.Open());
    Finish(m_Keeper);
    ASSERT_THAT(Aside(), SizeIs(1));
    ExpectEachOnceOrCounted();
    EXPECT_GT(Missing(), 100);
    EXPECT_LT(Missing(), 1000);
    EXPECT_THAT(Errors(),
                ElementsAre(HasSubstr("the check found damage: "), StartsWith("renamed"),
                            AllOf(HasSubstr("recovered " + std::to_string(2000 - Missing())),
                                  HasSubstr(std::to_string(Missing()) + " could not be read"))));
}

TEST_F(Recovery, CountsTheMissingByApplication) {
    Make();
    const std::string counted =
        "SELECT service_id || ' ' || count(*) FROM records GROUP BY service_id";
    const auto before = Column(counted);
    ASSERT_GE(DamagePages("name = 'entries' AND pagetype = 'leaf' AND pageno % 3 = 0"), 1U);
    EXPECT_TRUE(m_Keeper.Open());
    Finish(m_Keeper);
    EXPECT_EQ(Column("SELECT application || ' ' || sum(n) FROM (SELECT application, records AS n "
                     "FROM losses UNION ALL SELECT service_id, 1 FROM records) GROUP BY "
                     "application"),
              before);
    ASSERT_GT(Missing(), 0);
}

TEST_F(Recovery, CopiesAroundDamageOfAnyTable) {
    for (const char* pTable : {"contexts", "playbacks", "senders", "runs", "store", "entries",
                               "playbacks_by_age", "runs_by_context", "holdings"}) {
        SCOPED_TRACE(pTable);
        for (const auto& file : std::filesystem::directory_iterator(m_Folder.Path())) {
            std::filesystem::remove(file);
        }
        Make();
        ASSERT_GE(DamagePages("name = '" + std::string(pTable) + "'"), 1U);
        CTYStoreKeeper keeper(m_File, {});
        EXPECT_TRUE(keeper.Add(BatchOf("new")));
        EXPECT_TRUE(Eventually([&] { return keeper.HasGrown() || !Aside().empty(); }));
        while (keeper.Prune()) {
        }
        ASSERT_THAT(Aside(), SizeIs(1));
        EXPECT_TRUE(keeper.Add(BatchOf("newer")));
        EXPECT_THAT(Playbacks(m_File), Contains("newer"));
        EXPECT_EQ(Read().Column("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
        EXPECT_THAT(Files(".recover-"), IsEmpty());
    }
}

TEST_F(Recovery, LeavesTheDamagedFileAsItIs) {
    Make();
    ASSERT_GE(DamagePages("name = 'entries' AND pagetype = 'leaf'"), 1U);
    EXPECT_TRUE(m_Keeper.Open());
    EXPECT_TRUE(Eventually([&] { return m_Keeper.HasGrown(); }));
    m_Keeper.Prune();
    ASSERT_THAT(Aside(), SizeIs(1));
    const std::string damaged = ReadFile(Aside()[0]);
    while (m_Keeper.Prune()) {
    }
    EXPECT_TRUE(ReadFile(Aside()[0]) == damaged);
    EXPECT_EQ(Missing(), 2000);
}

TEST_F(Recovery, TakesStepsBetweenWhichBatchesAreStored) {
    MakeUnclean([](CTYStoreKeeper& keeper) { AddBatches(keeper, 1500); });
    ASSERT_GE(DamagePages("name = 'entries' AND pagetype = 'leaf' AND pageno % 50 = 0"), 1U);
    EXPECT_TRUE(m_Keeper.Open());
    EXPECT_TRUE(Eventually([&] { return m_Keeper.HasGrown(); }));
    int steps = 0;
    std::chrono::nanoseconds longest{};
    for (bool isMore = true; isMore; ++steps) {
        const auto begin = std::chrono::steady_clock::now();
        isMore = m_Keeper.Prune();
        // The first step sets the store aside.
        longest = steps > 0 ? std::max(longest, std::chrono::steady_clock::now() - begin) : longest;
        EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    }
    EXPECT_GE(steps, 3);
    EXPECT_LT(longest, 1s) << "a machine without load takes 50 ms";
    EXPECT_EQ(Stored() + Missing(), 30'000 + steps);
}

constexpr SystemCall kCalls[] = {SystemCall::WRITE, SystemCall::SYNC, SystemCall::UNLINK,
                                 SystemCall::RENAME, SystemCall::OPEN};

class KilledRecovery : public Recovery, public testing::WithParamInterface<SystemCall> {
  protected:
    // Runs a keeper in a process that ends at the n-th call; returns whether it ended by that.
    bool RunUntilCall(int n) const {
        const pid_t child = fork();
        if (child == 0) {
            CTYStoreKeeper keeper(m_File, {});
            CFaultySystem::Kill(GetParam(), n);
            keeper.Open();
            Finish(keeper);
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status));
        return WEXITSTATUS(status) == CFaultySystem::kKilled;
    }
    const CFaultySystem m_System;
    const CTemporaryFolder m_Copy;
};

TEST_P(KilledRecovery, LosesAndDoublesNothing) {
    Make();
    ASSERT_GE(DamagePages("name = 'entries' AND pagetype = 'leaf' AND pageno % 5 = 0"), 2U);
    std::filesystem::copy(m_Folder.Path(), m_Copy.Path());
    bool wasKilled = true;
    // The first calls one by one, then every tenth part further on.
    for (int n = 1; wasKilled; n += 1 + n / 10) {
        SCOPED_TRACE(n);
        Replace(m_Copy.Path());
        wasKilled = RunUntilCall(n);
        EXPECT_TRUE(n > 1 || wasKilled) << "the call was never made";
        CTYStoreKeeper keeper(m_File, {});
        EXPECT_TRUE(keeper.Open());
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(Eventually([&] { return !keeper.Prune() || keeper.HasGrown(); }));
        }
        EXPECT_TRUE(Eventually(
            [&] { return !keeper.Prune() && Files(".recover-").empty() && !Aside().empty(); }));
        ExpectEachOnceOrCounted();
    }
}

INSTANTIATE_TEST_SUITE_P(AtEach, KilledRecovery, testing::ValuesIn(kCalls),
                         [](const auto& one) { return NameOf(one.param); });

class SurvivingPolicies : public Recovery {
  protected:
    void SetPolicies(const std::filesystem::path& file) const {
        CFileReader(file, CTYDatabase::Mode::READ_WRITE)
            .Execute(
                "INSERT INTO policies VALUES('refused', 0, 5, 1);"
                "INSERT INTO bindings VALUES('bound', 1000, 6), ('bound', 1001, 6)");
    }
    void ExpectPolicies(CTYStoreKeeper& keeper) const {
        const auto refused = keeper.Policy("refused");
        ASSERT_TRUE(refused);
        EXPECT_EQ(refused->value, 0);
        EXPECT_TRUE(refused->keepQueries);
        const auto bound = keeper.Policy("bound");
        ASSERT_TRUE(bound);
        EXPECT_THAT(bound->uids, ElementsAre(1000, 1001));
        EXPECT_EQ(Number("SELECT changed FROM policies WHERE application = 'refused'"), 5);
    }
};

TEST_F(SurvivingPolicies, AreReadFromTheDamagedFile) {
    MakeUnclean([this](CTYStoreKeeper& keeper) {
        AddBatches(keeper, 100);
        SetPolicies(m_Folder.Path() / "source.db");
    });
    ASSERT_GE(DamagePages("name IN ('senders', 'entries')"), 1U);
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    ASSERT_THAT(Aside(), SizeIs(1));
    ExpectPolicies(m_Keeper);
}

TEST_F(SurvivingPolicies, AreKnownToTheKeeperIfTheyAreDamagedToo) {
    ASSERT_TRUE(m_Keeper.Add(BatchOf("old")));
    SetPolicies(m_File);
    m_Keeper.Prune();
    CFileReader(m_File, CTYDatabase::Mode::READ_WRITE).Execute("PRAGMA wal_checkpoint(TRUNCATE)");
    CFileReader other(m_File, CTYDatabase::Mode::READ_WRITE);
    EXPECT_EQ(other.Number("SELECT count(*) FROM losses"), 0);
    ASSERT_GE(DamagePages("name IN ('policies', 'bindings', 'senders', 'store')"), 3U);
    // Another process has written, so the keeper reads the pages again.
    other.Execute("INSERT INTO losses(at, reason, playbacks, records) VALUES(1, 'age', 0, 7)");
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    ASSERT_THAT(Aside(), SizeIs(1));
    ExpectPolicies(m_Keeper);
    EXPECT_EQ(Number("SELECT records FROM losses WHERE reason = 'age'"), 7);
}

TEST_F(SurvivingPolicies, AreTakenOverAlthoughTheDiskIsFullAtFirst) {
    const CFaultySystem system;
    MakeUnclean([this](CTYStoreKeeper& keeper) {
        AddBatches(keeper, 1);
        SetPolicies(m_Folder.Path() / "source.db");
    });
    ASSERT_GE(DamagePages("name IN ('senders', 'entries')"), 1U);
    const CTemporaryFolder copy;
    std::filesystem::copy(m_Folder.Path(), copy.Path());
    int n = 0;
    for (bool hasFailed = true; hasFailed; ++n) {
        SCOPED_TRACE(n);
        Replace(copy.Path());
        CTYStoreKeeper keeper(m_File, {}, [this] { return m_Now; });
        CFaultySystem::Fail(SystemCall::WRITE, ENOSPC, n + 1, INT_MAX);
        hasFailed = !keeper.Add(BatchOf("new"));
        CFaultySystem::Repair();
        m_Now += 1s;
        EXPECT_TRUE(keeper.Add(BatchOf("new")));
        ExpectPolicies(keeper);
    }
    EXPECT_GT(n, 20);
}

TEST_F(Recovery, CopiesAStoreOfVersion1) {
    CTYDatabase(m_File, CTYDatabase::Mode::READ_WRITE).Execute(R"sql(
CREATE TABLE policies(application TEXT PRIMARY KEY, value INTEGER, changed INTEGER);
CREATE TABLE losses(id INTEGER PRIMARY KEY, at INTEGER, reason TEXT, playbacks INTEGER,
                    records INTEGER);
INSERT INTO policies VALUES('refused', 0, 5);
INSERT INTO losses VALUES(1, 10, 'size', 2, 20);
)sql");
    CTYDamagedStore damaged(m_File);
    ASSERT_NE(damaged.Database(), nullptr);
    CTYKeptRows rows;
    rows.ReadWhatIsLeft(*damaged.Database());
    CTYStore store(m_Folder.Path() / "new.db");
    rows.Write(store.Database());
    EXPECT_EQ(store.Policy("refused").value, 0);
    EXPECT_EQ(store.Database().Number("SELECT records FROM losses WHERE reason = 'room'"), 20);
}

class Check : public Recovery {};

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

/// While alive, reading takes long for SQLite.
class CSlowDisk {
  public:
    CSlowDisk() {
        m_pVfs->xSetSystemCall(m_pVfs, "pread64", reinterpret_cast<sqlite3_syscall_ptr>(&Read));
    }
    ~CSlowDisk() { m_pVfs->xSetSystemCall(m_pVfs, "pread64", nullptr); }
    CSlowDisk(const CSlowDisk&) = delete;
    CSlowDisk& operator=(const CSlowDisk&) = delete;

  private:
    static ssize_t Read(int fd, void* pBytes, std::size_t size, off64_t offset) {
        std::this_thread::sleep_for(5ms);
        return pread64(fd, pBytes, size, offset);
    }

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
