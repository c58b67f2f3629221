// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "KeeperFixture.h"
#include "MountedFolder.h"

#include <fstream>
#include <iterator>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

namespace {

using namespace std::chrono_literals;

constexpr const char* kGarbage = "this was a database, and is none any more";

std::string ContentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

class DamagedStore : public CKeeperTest {
  protected:
    void WriteGarbage(const std::string& text = kGarbage) const {
        std::ofstream(m_File, std::ios::binary) << text;
    }
    // Files that were set aside, without their logs.
    std::vector<std::filesystem::path> Aside() const {
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator(m_Folder.Path())) {
            const std::string name = entry.path().filename();
            if (name.find(".damaged-") != std::string::npos && !name.ends_with("-wal") &&
                !name.ends_with("-shm")) {
                files.push_back(entry.path());
            }
        }
        return files;
    }
    // Overwrites the file from its second page on, which its header knows nothing about.
    void DamagePages() const {
        std::string content = ContentOf(m_File);
        std::fill(content.begin() + 4096, content.end(), '\x5a');
        WriteGarbage(content);
    }
};

TEST_F(DamagedStore, IsSetAsideUnderANameWithTheTime) {
    WriteGarbage();
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p1")));
    ASSERT_THAT(Aside(), SizeIs(1));
    EXPECT_THAT(Aside()[0].filename().string(),
                MatchesRegex("t.db.damaged-20[0-9][0-9][01][0-9][0-3][0-9]T[0-9]{6}Z"));
    EXPECT_EQ(ContentOf(Aside()[0]), kGarbage);
    EXPECT_EQ(Stored(), 1);
}

TEST_F(DamagedStore, IsToldWithALineForTheDamageAndOneForWhereItWent) {
    WriteGarbage();
    EXPECT_TRUE(m_Keeper.Open());
    EXPECT_THAT(Lines(),
                ElementsAre(HasSubstr("file is not a database"),
                            "renamed the damaged database to " + Aside().at(0).string(),
                            "storing records in " + m_File.string()));
}

TEST_F(DamagedStore, ThatWasDamagedTwiceInASecondIsKeptTwice) {
    for (const char* pText : {"first damage, and it is long", "second damage, and it is long"}) {
        WriteGarbage(pText);
        EXPECT_TRUE(CTYStoreKeeper(m_File, {}).Add(BatchOf("p1")));
    }
    ASSERT_THAT(Aside(), SizeIs(2));
    EXPECT_NE(ContentOf(Aside()[0]), ContentOf(Aside()[1]));
    EXPECT_EQ(Errors().size(), 4U);
}

TEST_F(DamagedStore, WithBrokenPagesIsSetAsideToo) {
    ASSERT_TRUE(CTYStoreKeeper(m_File, {}).Add(BatchOf("p1")));
    DamagePages();
    const std::string damaged = ContentOf(m_File);
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p2")));
    ASSERT_THAT(Aside(), SizeIs(1));
    EXPECT_EQ(ContentOf(Aside()[0]).substr(4096), damaged.substr(4096));
    EXPECT_EQ(Stored(), 1);
}

TEST_F(DamagedStore, ThatIsCutOffIsSetAsideToo) {
    ASSERT_TRUE(CTYStoreKeeper(m_File, {}).Add(BigBatch()));
    std::filesystem::resize_file(m_File, 10'000);
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p2")));
    EXPECT_THAT(Aside(), SizeIs(1));
    EXPECT_EQ(Stored(), 1);
}

TEST_F(DamagedStore, ThatIsEmptyIsANewOne) {
    WriteGarbage("");
    EXPECT_TRUE(m_Keeper.Add(BatchOf("p1")));
    EXPECT_THAT(Aside(), IsEmpty());
}

TEST_F(DamagedStore, ThatCannotBeSetAsideIsRefusedWithoutAFloodOfLines) {
    const CMountedFolder disk("1m");
    if (!disk.Problem().empty()) {
        GTEST_SKIP() << disk.Problem();
    }
    std::ofstream(disk.Path() / "t.db") << kGarbage;
    ASSERT_TRUE(disk.SetReadOnly(true));
    CTYStoreKeeper keeper(disk.Path() / "t.db", {}, [this] { return m_Now; });
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(keeper.Add(BatchOf("p1")));
        m_Now += 1s;
    }
    EXPECT_THAT(Lines(), ElementsAre(HasSubstr("file is not a database"),
                                     HasSubstr("cannot rename the damaged " +
                                               (disk.Path() / "t.db").string() +
                                               ": Read-only file system")));
    ASSERT_TRUE(disk.SetReadOnly(false));
    EXPECT_TRUE(keeper.Add(BatchOf("p1")));
}

}  // namespace
