// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "KeeperFixture.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using namespace std::chrono_literals;

class LongLog : public CStoreFilesTest {
  protected:
    // Adds batches until one is refused, but not for ever.
    int AddUntilRefused(CTYStoreKeeper& keeper) {
        int added = 0;
        while (added < 1000 && keeper.Add(BigBatch("p" + std::to_string(added)))) {
            ++added;
        }
        return added;
    }
    std::int64_t Size() const {
        const CTYStoreFile file(m_File);
        return file.Bytes() + file.LogBytes();
    }

    static constexpr std::int64_t kLimit = std::int64_t{8} << 20;
    CTYStoreKeeper m_Small{m_File, {24h, kLimit}, [this] { return m_Now; }};
};

TEST_F(LongLog, IsBoundedTogetherWithItsDatabaseWhileAProcessReads) {
    ASSERT_TRUE(m_Small.Add(BatchOf("first")));
    CBesideProcess reader([this] {
        static CFileReader database(m_File);
        database.Execute("BEGIN");
        database.Number("SELECT count(*) FROM records");
    });
    ASSERT_TRUE(reader.IsReady());
    const int added = AddUntilRefused(m_Small);
    EXPECT_GT(added, 30);
    EXPECT_LT(added, 1000);
    EXPECT_LT(Size(), kLimit + kLimit / 16 + (1 << 20));
    EXPECT_THAT(
        Errors(),
        ElementsAre(AllOf(HasSubstr("cannot store a batch: the log has grown to"),
                          HasSubstr("process " + std::to_string(reader.Pid()) + " (tallyra-"))));
    reader.Kill();
    m_Now += 1s;
    EXPECT_TRUE(m_Small.Add(BatchOf("last")));
    EXPECT_LT(CTYStoreFile(m_File).LogBytes(), 1 << 20);
    EXPECT_EQ(Stored(), added + 2);
}

TEST_F(LongLog, IsBoundedThoughALinkLeadsToItsDatabase) {
    const std::string link = m_Folder.Path() / "link.db";
    std::filesystem::create_symlink(m_File.filename(), link);
    CTYStoreKeeper keeper(link, {24h, kLimit}, [this] { return m_Now; });
    ASSERT_TRUE(keeper.Add(BatchOf("first")));
    CFileReader reader(m_File);
    reader.Execute("BEGIN");
    reader.Number("SELECT count(*) FROM records");
    EXPECT_LT(AddUntilRefused(keeper), 1000);
    EXPECT_LT(Size(), kLimit + kLimit / 16 + (1 << 20));
}

TEST_F(LongLog, IsToldToBeReadByTheProcessWithTheOldestState) {
    ASSERT_TRUE(m_Small.Add(BatchOf("first")));
    const auto read = [this] {
        static CFileReader database(m_File);
        database.Execute("BEGIN");
        database.Number("SELECT count(*) FROM records");
    };
    CBesideProcess first(read);
    ASSERT_TRUE(m_Small.Add(BigBatch("second")));
    CBesideProcess second(read);
    CTYLogReader reader(m_File);
    EXPECT_THAT(reader.Find(), HasSubstr("process " + std::to_string(first.Pid())));
    first.Kill();
    ASSERT_TRUE(m_Small.Add(BigBatch("third")));
    // Takes the place of the first one in the index.
    CBesideProcess third(read);
    EXPECT_THAT(reader.Find(), HasSubstr("process " + std::to_string(second.Pid())));
    second.Kill();
    EXPECT_THAT(reader.Find(), HasSubstr("process " + std::to_string(third.Pid())));
    third.Kill();
    EXPECT_EQ(reader.Find(), "");
}

TEST_F(LongLog, IsMadeLongerByNothingWhileItIsTooLong) {
    ASSERT_TRUE(m_Small.Add(BatchOf("first")));
    {
        CFileReader reader(m_File);
        reader.Execute("BEGIN");
        reader.Number("SELECT count(*) FROM records");
        AddUntilRefused(m_Small);
        const std::int64_t before = Size();
        for (int i = 0; i < 100; ++i) {
            m_Now += 1s;
            m_Small.CountLoss(TYLossReason::RATE, "org.example.app", 1);
            EXPECT_FALSE(m_Small.Add(BatchOf("refused")));
            EXPECT_FALSE(m_Small.Prune());
        }
        EXPECT_EQ(Size(), before);
    }
    m_Small.Prune();
    EXPECT_EQ(Number("SELECT sum(records) FROM losses WHERE reason = 'rate'"), 100);
}

TEST_F(LongLog, CountsWhatIsRefused) {
    ASSERT_TRUE(m_Small.Add(BatchOf("first")));
    {
        CFileReader reader(m_File);
        reader.Execute("BEGIN");
        reader.Number("SELECT count(*) FROM records");
        AddUntilRefused(m_Small);
        EXPECT_FALSE(m_Small.Add(BatchOf("refused")));
        EXPECT_TRUE(m_Small.HasLosses());
        EXPECT_EQ(m_Small.State().refused, 2);
    }
    m_Small.Prune();
    EXPECT_FALSE(m_Small.HasLosses());
    EXPECT_THAT(Column("SELECT reason || ' ' || application || ' ' || records FROM losses "
                       "WHERE reason = 'full'"),
                ElementsAre("full org.example.app 2"));
}

}  // namespace
