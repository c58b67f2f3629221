// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSchema.h"

#include "ChildScenario.h"
#include "Sanitizers.h"
#include "StoreFixture.h"

#include <csignal>

using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

namespace {

using Mode = CTYDatabase::Mode;

class Schema : public testing::Test {
  protected:
    static void ExpectRefusal(CTYDatabase& database, const char* pText) {
        const char* pState =
            "SELECT count(*) || ' ' || (SELECT user_version FROM pragma_user_version) || ' ' || "
            "(SELECT application_id FROM pragma_application_id) FROM sqlite_schema";
        const std::string before = FirstText(database, pState);
        try {
            MigrateSchema(database);
            ADD_FAILURE() << "it was migrated";
        } catch (const CTYDatabaseError& error) {
            EXPECT_EQ(error.Kind(), SQLITE_MISMATCH);
            EXPECT_THAT(error.what(), HasSubstr(pText));
        }
        EXPECT_THROW(CheckSchema(database), CTYDatabaseError);
        EXPECT_EQ(FirstText(database, pState), before);
    }
    static std::string FirstText(CTYDatabase& database, const char* pSql) {
        CTYStatement statement(database, pSql);
        statement.Step();
        return std::string(statement.Text(0));
    }

    CTYDatabase m_Database{":memory:", Mode::READ_WRITE};
};

TEST_F(Schema, IsCreatedInAnEmptyFileAndThenNotChanged) {
    EXPECT_THROW(CheckSchema(m_Database), CTYDatabaseError);
    MigrateSchema(m_Database);
    for (const char* pTable : {"senders", "playbacks", "contexts", "entries", "runs", "records",
                               "policies", "bindings", "losses", "holdings", "store", "phases",
                               "forwarding", "forwarding_batches", "origins", "coverage"}) {
        EXPECT_NO_THROW(CTYStatement(m_Database, "SELECT * FROM " + std::string(pTable)));
    }
    EXPECT_EQ(m_Database.Number("PRAGMA user_version"), SchemaVersion());
    EXPECT_EQ(m_Database.Number("PRAGMA application_id"), 0x54594c41);
    const std::int64_t before = m_Database.Number("PRAGMA schema_version");
    MigrateSchema(m_Database);
    EXPECT_EQ(m_Database.Number("PRAGMA schema_version"), before);
    EXPECT_NO_THROW(CheckSchema(m_Database));
}

TEST_F(Schema, ReplacesAViewWithAnotherText) {
    MigrateSchema(m_Database);
    const char* pView =
        "SELECT coalesce((SELECT sql FROM sqlite_schema WHERE name = 'phases'), '')";
    const std::string text = FirstText(m_Database, pView);
    ASSERT_THAT(text, HasSubstr("CREATE VIEW phases"));
    m_Database.Execute("DROP VIEW phases");
    MigrateSchema(m_Database);
    EXPECT_EQ(FirstText(m_Database, pView), text);
    m_Database.Execute("DROP VIEW phases; CREATE VIEW phases AS SELECT 1 AS playback");
    MigrateSchema(m_Database);
    EXPECT_EQ(FirstText(m_Database, pView), text);
}

TEST_F(Schema, RefusesForeignFilesAndDoesNotChangeThem) {
    const struct {
        bool isMigrated;
        const char* pChange;
        const char* pRefusal;
    } cases[] = {
        {true, "PRAGMA user_version = 1000", "schema version 1000, this program supports"},
        {true, "PRAGMA user_version = 0", "schema version 0"},
        {true, "PRAGMA user_version = -3", "schema version -3"},
        {false, "CREATE TABLE theirs(a)", "belongs to another application"},
        {false, "PRAGMA application_id = 42", "belongs to another application"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.pChange);
        CTYDatabase database(":memory:", Mode::READ_WRITE);
        if (one.isMigrated) {
            MigrateSchema(database);
        }
        database.Execute(one.pChange);
        ExpectRefusal(database, one.pRefusal);
    }
}

/// Kills this process before a step of SQLite: the nth statement of all connections, or the nth
/// write to a file.
class CKilledStep {
  public:
    enum class Kind { STATEMENT, WRITE };

    static void Arm(Kind kind, int step) {
        s_nLeft = step;
        if (kind == Kind::STATEMENT) {
            sqlite3_auto_extension(reinterpret_cast<void (*)()>(&Watch));
            return;
        }
        sqlite3_vfs* pVfs = sqlite3_vfs_find("unix");
        Replace(pVfs, "write", reinterpret_cast<sqlite3_syscall_ptr>(&Write));
        Replace(pVfs, "pwrite", reinterpret_cast<sqlite3_syscall_ptr>(&WriteAt));
        Replace(pVfs, "pwrite64", reinterpret_cast<sqlite3_syscall_ptr>(&WriteAt));
    }

  private:
    static void Replace(sqlite3_vfs* pVfs, const char* pName, sqlite3_syscall_ptr function) {
        pVfs->xSetSystemCall(pVfs, pName, function);
    }
    static void Count() {
        if (--s_nLeft == 0) {
            raise(SIGKILL);
        }
    }
    static int Watch(sqlite3* pHandle, char**, const sqlite3_api_routines*) {
        return sqlite3_trace_v2(pHandle, SQLITE_TRACE_STMT, &BeforeStatement, nullptr);
    }
    static int BeforeStatement(unsigned, void*, void*, void*) {
        Count();
        return 0;
    }
    static ssize_t Write(int file, const void* pBytes, std::size_t size) {
        Count();
        return write(file, pBytes, size);
    }
    static ssize_t WriteAt(int file, const void* pBytes, std::size_t size, off_t offset) {
        Count();
        return pwrite(file, pBytes, size, offset);
    }

    static inline int s_nLeft = 0;
};

class Migration : public CStoreTest {
  protected:
    static constexpr const char* kRecords =
        "SELECT id || ' ' || arrival || ' ' || bus_name || ' ' || coalesce(uid, '-') || ' ' || "
        "playback_id || ' ' || service_id || ' ' || event || ' ' || param1 || ' ' || "
        "coalesce(url, '-') || ' ' || title || ' ' || hex(common) FROM records ORDER BY id";
    static constexpr const char* kTotals =
        "SELECT id || ' ' || records || ' ' || watched_ms || ' ' || stalls || ' ' || errors || "
        "' ' || last_arrival || ' ' || coalesce(context, '-') FROM playbacks ORDER BY id";

    void RemoveStore() const {
        for (const char* pSuffix : {"", "-wal", "-shm", "-journal"}) {
            std::filesystem::remove(m_File.string() + pSuffix);
        }
    }
    // A store that an older version of the schema left.
    void WriteVersion(int version) const {
        RemoveStore();
        WriteStore(m_File, STORES "/store-version-" + std::to_string(version) + ".sql");
    }
    // Reads after recovery of what a killed process left, which a read-only connection cannot do.
    std::vector<std::string> All(const char* pSql) const {
        return CFileReader(m_File, Mode::READ_WRITE).Column(pSql);
    }
};

TEST_F(Migration, KeepsAllRecordsAndTotals) {
    for (int version = 1; version < SchemaVersion(); ++version) {
        SCOPED_TRACE(version);
        WriteVersion(version);
        const auto records = All(kRecords);
        const auto totals = All(kTotals);
        ASSERT_GT(records.size(), 100U);
        { const CTYStore store(m_File); }
        EXPECT_EQ(Number("PRAGMA user_version"), SchemaVersion());
        EXPECT_EQ(All(kRecords), records);
        EXPECT_EQ(All(kTotals), totals);
        EXPECT_THAT(All("PRAGMA integrity_check"), ElementsAre("ok"));
        EXPECT_THAT(All("PRAGMA foreign_key_check"), IsEmpty());
    }
}

TEST_F(Migration, KeepsPoliciesAndLosses) {
    WriteVersion(1);
    { const CTYStore store(m_File); }
    EXPECT_EQ(Number("SELECT count(*) FROM policies WHERE application = 'org.example.refused' "
                     "AND value = 0 AND keep_queries = 0"),
              1);
    EXPECT_THAT(All("SELECT reason || ' ' || application || ' ' || records FROM losses"),
                ElementsAre("age  7", "room  9"));
}

TEST_F(Migration, IsAnnouncedBeforeItBegins) {
    std::vector<int> announced;
    const auto migrate = [&] {
        CTYDatabase database(m_File, Mode::READ_WRITE);
        MigrateSchema(database, [&](int version) {
            announced.push_back(version);
            EXPECT_EQ(database.Number("PRAGMA user_version"), version);
        });
    };
    for (int version = 1; version < SchemaVersion(); ++version) {
        WriteVersion(version);
        migrate();
        migrate();
        EXPECT_THAT(std::exchange(announced, {}), ElementsAre(version));
    }
    RemoveStore();
    migrate();
    EXPECT_THAT(announced, IsEmpty()) << "a new store is not upgraded";
}

// Services start with a store of any size without a wait.
TEST_F(Migration, OfVersions2And3OnlyAddsTables) {
    const char* pTables =
        "SELECT name || sql FROM sqlite_schema WHERE name NOT IN ('phases', 'forwarding', "
        "'forwarding_batches', 'origins', 'coverage', 'entries_go_with_their_run') ORDER BY name";
    for (const int version : {2, 3}) {
        SCOPED_TRACE(version);
        WriteVersion(version);
        const auto tables = All(pTables);
        const std::string identity = All("SELECT epoch || clock FROM store").front();
        const std::int64_t pages = Number("PRAGMA page_count");
        {
            CTYDatabase database(m_File, Mode::READ_WRITE);
            MigrateSchema(database);
        }
        EXPECT_EQ(All(pTables), tables);
        EXPECT_THAT(All("SELECT epoch || clock FROM store"), ElementsAre(identity));
        EXPECT_LE(Number("PRAGMA page_count"), pages + 8);
        EXPECT_GT(Number("SELECT count(*) FROM phases"), 0);
    }
}

TEST_F(Migration, MakesTheSchemaOfANewStore) {
    const char* pSchema =
        "SELECT name || ' ' || sql FROM sqlite_schema WHERE type <> 'table' OR name IN "
        "('forwarding', 'forwarding_batches', 'origins', 'coverage') ORDER BY name";
    { const CTYStore store(m_File); }
    const auto expected = All(pSchema);
    for (int version = 1; version < SchemaVersion(); ++version) {
        SCOPED_TRACE(version);
        WriteVersion(version);
        { const CTYStore store(m_File); }
        EXPECT_EQ(All(pSchema), expected);
        EXPECT_EQ(Number("SELECT count(*) FROM forwarding"), 0) << "no forwarder has run";
    }
}

TEST_F(Migration, FindsOutWhatEachUserHolds) {
    WriteVersion(1);
    { const CTYStore store(m_File); }
    EXPECT_THAT(All("SELECT uid FROM holdings ORDER BY uid"), ElementsAre("-1", "1000", "1001"));
    EXPECT_THAT(All("SELECT h.uid FROM holdings h WHERE bytes <> (SELECT sum(bytes) FROM "
                    "playbacks p WHERE p.uid = h.uid)"),
                IsEmpty());
    EXPECT_THAT(
        All("SELECT id FROM playbacks p WHERE "
            "uid <> coalesce((SELECT uid FROM senders WHERE id = p.sender), -1) OR "
            "bytes <> 300 + records * 40 + (SELECT sum(2 * length(common) + "
            "coalesce(length(CAST(url AS BLOB)), 0)) FROM contexts WHERE playback = p.id) OR "
            "last_entry <> (SELECT max(id) FROM records_by_playback WHERE playback = p.id)"),
        IsEmpty());
}

TEST_F(Migration, CountsTheAgeOfOldRecordsFromNow) {
    WriteVersion(1);
    const std::size_t records = All(kRecords).size();
    CFakeTimes times;
    CTYStore store(m_File, {std::chrono::hours(24), std::int64_t{1} << 40}, times.Reader());
    times.Pass(24 * CFakeTimes::kHour);
    EXPECT_FALSE(store.Prune());
    EXPECT_EQ(static_cast<std::size_t>(Stored()), records);
    times.Pass(1);
    while (store.Prune()) {
    }
    EXPECT_EQ(Stored(), 0);
    EXPECT_THAT(All("SELECT count(*) FROM holdings UNION ALL SELECT count(*) FROM senders"),
                ElementsAre("0", "0"));
}

class KilledMigration : public Migration, public testing::WithParamInterface<CKilledStep::Kind> {
  protected:
    // How far the killed steps are apart: forking takes long under a sanitizer.
    static constexpr int kStride = kWithSanitizersAllocator ? 4 : 1;

    // Opens the store in a child that is killed before a step.
    // @return whether the child was killed
    bool IsKilledAt(int step) const {
        return RunForked([&] {
                   CKilledStep::Arm(GetParam(), step);
                   const CTYStore store(m_File);
                   return 0;
               }).exitCode == -1;
    }
};

TEST_P(KilledMigration, LeavesAWholeVersion) {
    WriteVersion(1);
    const auto records = All(kRecords);
    int step = 1;
    for (; IsKilledAt(step); step += kStride) {
        SCOPED_TRACE("step " + std::to_string(step));
        const std::int64_t version = Number("PRAGMA user_version");
        const std::int64_t hasEpoch =
            Number("SELECT count(*) FROM sqlite_schema WHERE name = 'store'");
        ASSERT_THAT(version, AnyOf(1, SchemaVersion()));
        ASSERT_EQ(hasEpoch, version == 1 ? 0 : 1);
        ASSERT_EQ(All(kRecords), records);
        ASSERT_THAT(All("PRAGMA integrity_check"), ElementsAre("ok"));
        if (version > 1) {
            WriteVersion(1);
        }
    }
    EXPECT_GT(step, 5);
    EXPECT_EQ(All(kRecords), records);
    EXPECT_EQ(Number("PRAGMA user_version"), SchemaVersion());
}

TEST_P(KilledMigration, LeavesANewStoreThatCanBeOpened) {
    int step = 1;
    for (; IsKilledAt(step); step += kStride) {
        SCOPED_TRACE("step " + std::to_string(step));
        // A file with content but without the application id would be another application's.
        std::string head(100, '\0');
        std::ifstream(m_File).read(head.data(), 100);
        const bool hasJournal = std::filesystem::exists(m_File.string() + "-journal");
        if (std::filesystem::exists(m_File) && std::filesystem::file_size(m_File) > 0) {
            ASSERT_TRUE(hasJournal || head.substr(68, 4) == "TYLA");
        }
        ASSERT_NO_THROW(CTYStore(m_File).Add(BatchOf("p1")));
        ASSERT_EQ(Stored(), 1);
        RemoveStore();
    }
    EXPECT_GT(step, 10);
}

INSTANTIATE_TEST_SUITE_P(Steps, KilledMigration,
                         testing::Values(CKilledStep::Kind::STATEMENT, CKilledStep::Kind::WRITE),
                         [](const auto& kind) {
                             return kind.param == CKilledStep::Kind::WRITE ? "Write" : "Statement";
                         });

using Ids = Migration;

TEST_F(Ids, DoNotRepeatAfterAllEntriesWereDropped) {
    for (const bool isOld : {false, true}) {
        if (isOld) {
            WriteVersion(1);
        }
        CFakeTimes times;
        CTYStore store(m_File, {std::chrono::hours(24), std::int64_t{1} << 40}, times.Reader());
        if (!isOld) {
            store.Add(BatchOf("before"));
        }
        const std::int64_t last = Number("SELECT max(id) FROM entries");
        times.Pass(25 * CFakeTimes::kHour);
        while (store.Prune()) {
        }
        ASSERT_EQ(Stored(), 0);
        store.Add(BatchOf("after"));
        EXPECT_EQ(Number("SELECT id FROM entries"), last + 1);
    }
}

TEST_F(Ids, OfAStoreHaveItsEpoch) {
    std::string epoch;
    {
        const CTYStore store(m_File);
        epoch = store.Epoch();
        EXPECT_THAT(epoch, MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-"
                                        "[0-9a-f]{12}"));
    }
    EXPECT_EQ(CTYStore(m_File).Epoch(), epoch);
    EXPECT_NE(CTYStore(m_Folder.Path() / "another.db").Epoch(), epoch);
}

}  // namespace
