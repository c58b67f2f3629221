// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDatabase.h"

#include "AsUser.h"
#include "StoreFixture.h"
#include "TYSchema.h"
#include "TYStorePath.h"

using testing::HasSubstr;

namespace {

using Mode = CTYDatabase::Mode;

class Database : public testing::Test {
  protected:
    Database() { m_Database.Execute("CREATE TABLE t(a, b)"); }

    std::int64_t Rows() { return m_Database.Number("SELECT count(*) FROM t"); }

    CTYDatabase m_Database{":memory:", Mode::READ_WRITE};
};

int KindOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const CTYDatabaseError& error) {
        return error.Kind();
    }
    return SQLITE_OK;
}

TEST_F(Database, ReturnsEachTypeAsItWasBound) {
    CTYStatement(m_Database, "INSERT INTO t VALUES(?, ?)").Run(INT64_MIN, "text");
    CTYStatement(m_Database, "INSERT INTO t VALUES(?, ?)")
        .Run(std::optional<std::int64_t>(), TYBlob{std::string_view("\0\xff", 2)});
    CTYStatement rows(m_Database, "SELECT a, b FROM t ORDER BY rowid");
    ASSERT_TRUE(rows.Step());
    EXPECT_EQ(rows.Int(0), INT64_MIN);
    EXPECT_EQ(rows.Text(1), "text");
    ASSERT_TRUE(rows.Step());
    EXPECT_TRUE(rows.IsNull(0));
    EXPECT_EQ(rows.Type(1), SQLITE_BLOB);
    EXPECT_EQ(rows.Text(1), std::string_view("\0\xff", 2));
    EXPECT_FALSE(rows.Step());
}

TEST_F(Database, BindsEmptyTextsAndBlobsAsNotNull) {
    CTYStatement(m_Database, "INSERT INTO t VALUES(?, ?)").Run(std::string_view(), TYBlob{});
    EXPECT_EQ(m_Database.Number("SELECT count(*) FROM t WHERE a = '' AND b = x''"), 1);
}

TEST_F(Database, RunsAStatementAgainAlsoAfterAFailure) {
    m_Database.Execute("CREATE UNIQUE INDEX i ON t(a)");
    CTYStatement insert(m_Database, "INSERT INTO t VALUES(?, NULL)");
    insert.Run(1);
    EXPECT_EQ(KindOf([&] { insert.Run(1); }), SQLITE_CONSTRAINT);
    insert.Run(2);
    EXPECT_EQ(m_Database.Number("SELECT sum(a) FROM t"), 3);
    EXPECT_EQ(m_Database.LastId(), 2);
    EXPECT_EQ(m_Database.Changes(), 1);
}

TEST_F(Database, CommitsATransactionOrRollsItBack) {
    for (const bool isCommitted : {false, true}) {
        CTYTransaction transaction(m_Database);
        m_Database.Execute("INSERT INTO t VALUES(1, 1); INSERT INTO t VALUES(2, 2)");
        if (isCommitted) {
            transaction.Commit();
        }
    }
    EXPECT_EQ(Rows(), 2);
}

TEST_F(Database, ReportsErrorsWithTheirCode) {
    EXPECT_EQ(KindOf([&] { m_Database.Execute("SPELL"); }), SQLITE_ERROR);
    EXPECT_EQ(KindOf([&] { CTYStatement(m_Database, "SELECT nothing FROM t"); }), SQLITE_ERROR);
    EXPECT_EQ(KindOf([&] { CTYStatement(m_Database, "SELECT a FROM t").Run(1); }), SQLITE_RANGE);
}

using DatabaseFile = CStoreTest;

TEST_F(DatabaseFile, CannotBeCreatedInAMissingFolder) {
    try {
        const CTYDatabase database(m_Folder.Path() / "none" / "t.db", Mode::READ_WRITE);
        FAIL() << "it was opened";
    } catch (const CTYDatabaseError& error) {
        EXPECT_EQ(error.Kind(), SQLITE_CANTOPEN);
        EXPECT_THAT(error.what(), HasSubstr("none/t.db"));
    }
}

TEST_F(DatabaseFile, IsNeitherCreatedNorChangedByAReader) {
    EXPECT_EQ(KindOf([&] { Read(); }), SQLITE_CANTOPEN);
    EXPECT_FALSE(std::filesystem::exists(m_File));
    CTYDatabase(m_File, Mode::READ_WRITE).Execute("CREATE TABLE t(a)");
    EXPECT_EQ(Number("SELECT count(*) FROM t"), 0);
    EXPECT_EQ(KindOf([&] { Read().Execute("INSERT INTO t VALUES(1)"); }), SQLITE_READONLY);
}

TEST_F(DatabaseFile, ReportsALockAtOnceWithoutALockTimeout) {
    CTYDatabase one(m_File, Mode::READ_WRITE);
    CTYDatabase other(m_File, Mode::READ_WRITE);
    const CTYTransaction lock(one);
    other.WaitForLocks(0);
    EXPECT_EQ(KindOf([&] { CTYTransaction transaction(other); }), SQLITE_BUSY);
}

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
    for (const char* pTable :
         {"senders", "playbacks", "contexts", "entries", "runs", "records", "policies", "losses"}) {
        EXPECT_NO_THROW(CTYStatement(m_Database, "SELECT * FROM " + std::string(pTable)));
    }
    EXPECT_EQ(m_Database.Number("PRAGMA user_version"), SchemaVersion());
    EXPECT_EQ(m_Database.Number("PRAGMA application_id"), 0x54594c41);
    const std::int64_t before = m_Database.Number("PRAGMA schema_version");
    MigrateSchema(m_Database);
    EXPECT_EQ(m_Database.Number("PRAGMA schema_version"), before);
    EXPECT_NO_THROW(CheckSchema(m_Database));
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

void Set(const char* pVariable, const char* pValue) {
    pValue != nullptr ? setenv(pVariable, pValue, 1) : unsetenv(pVariable);
}

std::string PathWith(const char* pState, const char* pHome) {
    Set("XDG_STATE_HOME", pState);
    Set("HOME", pHome);
    return DefaultStorePath();
}

TEST(StorePath, OfAUserFollowsTheEnvironment) {
    const CAsUser user(kNobody);
    EXPECT_EQ(PathWith("/state", "/home"), "/state/tallyra/tallyra.db");
    EXPECT_EQ(PathWith(nullptr, "/home"), "/home/.local/state/tallyra/tallyra.db");
    EXPECT_EQ(PathWith("not/absolute", "/home"), "/home/.local/state/tallyra/tallyra.db");
    EXPECT_EQ(PathWith("", nullptr), "/.local/state/tallyra/tallyra.db");
}

TEST(StorePath, OfRootIsInVar) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "DefaultStorePath asks for the effective user, and only root can be root";
    }
    EXPECT_EQ(PathWith("/state", "/home"), "/var/lib/tallyra/tallyra.db");
}

}  // namespace
