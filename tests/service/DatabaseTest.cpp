// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDatabase.h"

#include "AsUser.h"
#include "StoreFixture.h"
#include "TYStorePath.h"

namespace {

using Mode = CTYDatabase::Mode;

int KindOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const CTYDatabaseError& error) {
        return error.Kind();
    }
    return SQLITE_OK;
}

TEST(Database, ReturnsEachTypeAsItWasBound) {
    CTYDatabase database(":memory:", Mode::READ_WRITE);
    database.Execute("CREATE TABLE t(a, b)");
    CTYStatement insert(database, "INSERT INTO t VALUES(?, ?)");
    insert.Run(INT64_MIN, "text");
    insert.Run(std::optional<std::int64_t>(), TYBlob{std::string_view("\0\xff", 2)});
    insert.Run(std::string_view(), TYBlob{});
    CTYStatement rows(database,
                      "SELECT typeof(a) || ' ' || coalesce(a, '') || ' ' || typeof(b) || ' ' || "
                      "hex(b) FROM t ORDER BY rowid");
    for (const char* pRow :
         {"integer -9223372036854775808 text 74657874", "null  blob 00FF", "text  blob "}) {
        ASSERT_TRUE(rows.Step());
        EXPECT_EQ(rows.Text(0), pRow);
    }
    EXPECT_FALSE(rows.Step());
    EXPECT_EQ(KindOf([&] { database.Execute("SPELL"); }), SQLITE_ERROR);
    EXPECT_EQ(KindOf([&] { CTYStatement(database, "SELECT nothing FROM t"); }), SQLITE_ERROR);
    EXPECT_EQ(KindOf([&] { CTYStatement(database, "SELECT a FROM t").Run(1); }), SQLITE_RANGE);
}

using DatabaseFile = CStoreTest;

TEST_F(DatabaseFile, IsNeitherCreatedNorChangedByAReader) {
    EXPECT_EQ(KindOf([&] { Read(); }), SQLITE_CANTOPEN);
    EXPECT_FALSE(std::filesystem::exists(m_File));
    CTYDatabase(m_File, Mode::READ_WRITE).Execute("CREATE TABLE t(a)");
    EXPECT_EQ(Number("SELECT count(*) FROM t"), 0);
    EXPECT_EQ(KindOf([&] { Read().Execute("INSERT INTO t VALUES(1)"); }), SQLITE_READONLY);
}

TEST_F(DatabaseFile, HasItsNameThoughThatLooksLikeAUri) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(m_Folder.Path());
    const char* pName = "file:t.db?mode=memory";
    CTYDatabase(pName, Mode::READ_WRITE).Execute("CREATE TABLE t(a)");
    EXPECT_TRUE(std::filesystem::exists(pName));
    std::filesystem::current_path(before);
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
    EXPECT_THAT(StorePathsToRead(), testing::ElementsAre("/var/lib/tallyra/tallyra.db"));
}

TEST(StorePath, OfAReaderIsTheNamedOneOrAUsersBeforeTheSystems) {
    const CAsUser user(kNobody);
    Set("XDG_STATE_HOME", "/state");
    EXPECT_THAT(StorePathsToRead(),
                testing::ElementsAre("/state/tallyra/tallyra.db", "/var/lib/tallyra/tallyra.db"));
    Set("TALLYRA_DB", "");
    EXPECT_EQ(StorePathsToRead().size(), 2U);
    Set("TALLYRA_DB", "named.db");
    EXPECT_THAT(StorePathsToRead(), testing::ElementsAre("named.db"));
    Set("TALLYRA_DB", nullptr);
}

TEST(StorePath, IsTheFirstThatMayExist) {
    const CTemporaryFolder folder;
    const std::string missing = folder.Path() / "missing.db";
    const std::string other = folder.Path() / "folder/missing.db";
    const std::string present = folder.Path() / "present.db";
    folder.Write("present.db", "");
    EXPECT_EQ(ChooseStore({missing, present, other}), present);
    EXPECT_EQ(ChooseStore({missing, other}), missing);
    const CAsUser user(kNobody);
    // Not even its existence shows.
    EXPECT_EQ(ChooseStore({"/missing.db", present}),
              geteuid() == kNobody ? present : "/missing.db");
}

}  // namespace
