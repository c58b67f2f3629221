// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSchema.h"

#include "Samples.h"
#include "TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::IsSupersetOf;

namespace {

using Mode = CTYDatabase::Mode;

class Schema : public testing::Test {
  protected:
    std::string Refusal() {
        try {
            MigrateSchema(m_Database);
        } catch (const CTYDatabaseError& error) {
            EXPECT_EQ(error.Kind(), SQLITE_MISMATCH);
            return error.what();
        }
        return "none";
    }

    CTYDatabase m_Database{":memory:", Mode::READ_WRITE};
};

TEST_F(Schema, AFreshStoreHasAllTables) {
    const CTemporaryFolder folder;
    CTYDatabase database(folder.Path() / "t.db", Mode::READ_WRITE);
    MigrateSchema(database);
    CFileReader reader(folder.Path() / "t.db");

    EXPECT_THAT(reader.Column("SELECT name FROM sqlite_schema"),
                IsSupersetOf({"senders", "playbacks", "contexts", "entries", "records", "policies",
                              "losses"}));
    EXPECT_EQ(reader.Number("PRAGMA user_version"), SchemaVersion());
    EXPECT_EQ(reader.Number("PRAGMA application_id"), 0x54594c41);
}

TEST_F(Schema, AStoreOfThisVersionIsLeftAsItIs) {
    MigrateSchema(m_Database);
    const std::int64_t before = m_Database.Number("PRAGMA schema_version");
    MigrateSchema(m_Database);

    EXPECT_EQ(m_Database.Number("PRAGMA schema_version"), before);
    EXPECT_NO_THROW(CheckSchema(m_Database));
}

TEST_F(Schema, ANewerVersionIsRefused) {
    MigrateSchema(m_Database);
    m_Database.Execute("PRAGMA user_version = 1000");

    EXPECT_THAT(Refusal(), HasSubstr("schema version 1000, this program supports"));
    EXPECT_THROW(CheckSchema(m_Database), CTYDatabaseError);
    EXPECT_EQ(m_Database.Number("PRAGMA user_version"), 1000);
}

TEST_F(Schema, AVersionThatThereNeverWasIsRefused) {
    MigrateSchema(m_Database);
    for (const char* pVersion : {"PRAGMA user_version = 0", "PRAGMA user_version = -3"}) {
        m_Database.Execute(pVersion);
        EXPECT_THAT(Refusal(), HasSubstr("schema version"));
    }
}

TEST_F(Schema, AnotherApplicationsFileIsRefusedAndUntouched) {
    m_Database.Execute("CREATE TABLE theirs(a)");

    EXPECT_EQ(Refusal(), "the database belongs to another application");
    EXPECT_THROW(CheckSchema(m_Database), CTYDatabaseError);
    EXPECT_EQ(m_Database.Number("SELECT count(*) FROM sqlite_schema"), 1);
    EXPECT_EQ(m_Database.Number("PRAGMA application_id"), 0);
}

TEST_F(Schema, AnEmptyFileWithAnotherApplicationsNameIsRefused) {
    m_Database.Execute("PRAGMA application_id = 42");
    EXPECT_EQ(Refusal(), "the database belongs to another application");
}

TEST_F(Schema, AFileThatWasNeverMigratedCannotBeRead) {
    EXPECT_THROW(CheckSchema(m_Database), CTYDatabaseError);
}

}  // namespace
