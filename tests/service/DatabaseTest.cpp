// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDatabase.h"

#include "TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

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

TEST_F(Database, HandsBackEachTypeThatWasBound) {
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

TEST_F(Database, EmptyTextsAndBytesAreNotNull) {
    CTYStatement(m_Database, "INSERT INTO t VALUES(?, ?)").Run(std::string_view(), TYBlob{});
    EXPECT_EQ(m_Database.Number("SELECT count(*) FROM t WHERE a = '' AND b = x''"), 1);
}

TEST_F(Database, AStatementRunsAgainWithOtherValues) {
    CTYStatement insert(m_Database, "INSERT INTO t VALUES(?, NULL)");
    insert.Run(1);
    insert.Run(2);
    EXPECT_EQ(m_Database.Number("SELECT sum(a) FROM t"), 3);
    EXPECT_EQ(m_Database.LastId(), 2);
    EXPECT_EQ(m_Database.Changes(), 1);
}

TEST_F(Database, ATransactionHappensWhole) {
    {
        CTYTransaction transaction(m_Database);
        m_Database.Execute("INSERT INTO t VALUES(1, 1); INSERT INTO t VALUES(2, 2)");
        transaction.Commit();
    }
    EXPECT_EQ(Rows(), 2);
}

TEST_F(Database, ATransactionThatIsNotCommittedLeavesNothing) {
    {
        const CTYTransaction transaction(m_Database);
        m_Database.Execute("INSERT INTO t VALUES(1, 1)");
    }
    EXPECT_EQ(Rows(), 0);
    m_Database.Execute("INSERT INTO t VALUES(1, 1)");
    EXPECT_EQ(Rows(), 1);
}

TEST_F(Database, MistakesSayWhatTheyAre) {
    EXPECT_EQ(KindOf([&] { m_Database.Execute("SPELL"); }), SQLITE_ERROR);
    EXPECT_EQ(KindOf([&] { CTYStatement(m_Database, "SELECT nothing FROM t"); }), SQLITE_ERROR);
    EXPECT_EQ(KindOf([&] { CTYStatement(m_Database, "SELECT a FROM t").Run(1); }), SQLITE_RANGE);
}

TEST_F(Database, AStatementThatFailedCanRunAgain) {
    m_Database.Execute("CREATE UNIQUE INDEX i ON t(a)");
    CTYStatement insert(m_Database, "INSERT INTO t VALUES(?, NULL)");
    insert.Run(1);
    EXPECT_EQ(KindOf([&] { insert.Run(1); }), SQLITE_CONSTRAINT);
    insert.Run(2);
    EXPECT_EQ(Rows(), 2);
}

TEST(DatabaseFile, CannotBeMadeWhereThereIsNoFolder) {
    const CTemporaryFolder folder;
    try {
        const CTYDatabase database(folder.Path() / "none" / "t.db", Mode::READ_WRITE);
        FAIL() << "it was opened";
    } catch (const CTYDatabaseError& error) {
        EXPECT_EQ(error.Kind(), SQLITE_CANTOPEN);
        EXPECT_THAT(error.what(), HasSubstr("none/t.db"));
    }
}

TEST(DatabaseFile, IsNotMadeByAReader) {
    const CTemporaryFolder folder;
    EXPECT_EQ(KindOf([&] { CTYDatabase(folder.Path() / "t.db", Mode::READ_ONLY); }),
              SQLITE_CANTOPEN);
    EXPECT_FALSE(std::filesystem::exists(folder.Path() / "t.db"));
}

TEST(DatabaseFile, IsNotChangedByAReader) {
    const CTemporaryFolder folder;
    CTYDatabase(folder.Path() / "t.db", Mode::READ_WRITE).Execute("CREATE TABLE t(a)");
    CTYDatabase reader(folder.Path() / "t.db", Mode::READ_ONLY);
    EXPECT_EQ(reader.Number("SELECT count(*) FROM t"), 0);
    EXPECT_EQ(KindOf([&] { reader.Execute("INSERT INTO t VALUES(1)"); }), SQLITE_READONLY);
}

TEST(DatabaseFile, ALockThatIsNotWaitedForIsToldAtOnce) {
    const CTemporaryFolder folder;
    CTYDatabase one(folder.Path() / "t.db", Mode::READ_WRITE);
    CTYDatabase other(folder.Path() / "t.db", Mode::READ_WRITE);
    const CTYTransaction lock(one);
    other.WaitForLocks(0);
    EXPECT_EQ(KindOf([&] { CTYTransaction transaction(other); }), SQLITE_BUSY);
}

}  // namespace
