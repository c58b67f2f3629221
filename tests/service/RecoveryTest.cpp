// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FaultySystem.h"
#include "RecoveryFixture.h"
#include "Sanitizers.h"

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

using Recovery = CRecoveryTest;

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

TEST_F(Recovery, DoesNotRenameWhatHasReplacedTheDamagedStore) {
    for (const bool inPlace : {false, true}) {
        SCOPED_TRACE(inPlace);
        Make();
        ASSERT_GE(DamagePages("name = 'entries' AND pagetype = 'leaf' AND pageno % 5 = 0"), 2U);
        CTYStoreKeeper keeper(m_File, {}, [this] { return m_Now; });
        EXPECT_TRUE(keeper.Open());
        EXPECT_TRUE(Eventually([&] { return keeper.HasGrown(); }));
        inPlace ? m_Folder.Write("tallyra.db", "notes") : m_Folder.Replace("tallyra.db", "notes");
        keeper.Prune();
        EXPECT_EQ(m_Folder.Read("tallyra.db"), "notes");
        EXPECT_THAT(Aside(), IsEmpty());
        for (const auto& file : std::filesystem::directory_iterator(m_Folder.Path())) {
            std::filesystem::remove(file);
        }
    }
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
    Make();
    const CTemporaryFolder copy;
    std::filesystem::copy(m_Folder.Path(), copy.Path());
    for (const char* pTable : {"contexts", "playbacks", "senders", "runs", "store", "entries",
                               "playbacks_by_age", "runs_by_context", "holdings"}) {
        SCOPED_TRACE(pTable);
        Replace(copy.Path());
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
    Make(50);
    ASSERT_GE(DamagePages("name = 'entries' AND pagetype = 'leaf' AND pageno % 2 = 0"), 2U);
    std::filesystem::copy(m_Folder.Path(), m_Copy.Path());
    bool wasKilled = true;
    // The first calls one by one, then further and further apart.
    constexpr int kPart = kWithSanitizersAllocator ? 2 : 4;
    for (int n = 1; wasKilled; n += 1 + n / kPart) {
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

TEST_F(Recovery, ReplacesAStoreWhoseTablesAreNotThoseOfAStore) {
    Make();
    Execute("ALTER TABLE playbacks RENAME COLUMN stalls TO stalks");
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    ASSERT_THAT(Aside(), SizeIs(1));
    while (m_Keeper.Prune()) {
    }
    EXPECT_EQ(Stored() + Missing(), 2001);
    EXPECT_EQ(Missing(), 0);
}

TEST_F(Recovery, CopiesAStoreThatHasLostItsVersion) {
    Make();
    ASSERT_TRUE(CTYStoreKeeper(m_File, {}).Open());
    Execute("PRAGMA user_version = 0; PRAGMA wal_checkpoint(TRUNCATE)");
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    while (m_Keeper.Prune()) {
    }
    EXPECT_THAT(Aside(), SizeIs(1));
    EXPECT_EQ(Stored(), 2001);
}

// It would seem too large, and all records would be dropped for room.
TEST_F(Recovery, CopiesAStoreWhoseNumberOfFreePagesIsDamaged) {
    ASSERT_TRUE(CTYStoreKeeper(m_File, {}).Add(BatchOf("p1")));
    std::fstream(m_File, std::ios::in | std::ios::out).seekp(36) << "\xfb\xff\xff\xff";
    ASSERT_TRUE(m_Keeper.Open());
    while (m_Keeper.Prune()) {
    }
    EXPECT_THAT(Aside(), SizeIs(1));
    EXPECT_EQ(Stored(), 1);
}

TEST_F(Recovery, CopiesAStoreWithAMalformedSchema) {
    Make();
    CFileReader(m_File, CTYDatabase::Mode::READ_WRITE)
        .Execute(
            "PRAGMA writable_schema = ON;"
            "UPDATE sqlite_schema SET rootpage = (SELECT rootpage FROM sqlite_schema WHERE "
            "name = 'playbacks_by_name') WHERE name = 'playbacks_by_service';");
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    while (m_Keeper.Prune()) {
    }
    EXPECT_THAT(Aside(), SizeIs(1));
    EXPECT_EQ(Stored(), 2001);
}

TEST_F(Recovery, FollowsTheCheckAfterABatchThatDoesNotFitToTheTables) {
    Make();
    ASSERT_TRUE(CTYStoreKeeper(m_File, {}).Open());
    Execute(
        "INSERT INTO runs(first, last, context, arrival) SELECT 2001, 2001, id, 1 "
        "FROM contexts LIMIT 1");
    ASSERT_EQ(DamagePages("pageno = (SELECT min(pageno) FROM dbstat WHERE name = 'entries' "
                          "AND pagetype = 'leaf')"),
              1U);
    EXPECT_FALSE(m_Keeper.Add(BatchOf("new")));
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("UNIQUE constraint failed: runs.first")));
    Finish(m_Keeper);
    EXPECT_THAT(Aside(), SizeIs(1));
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
}

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

}  // namespace
