// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

#include <random>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kSecret = "SECRET";
constexpr const char* kPublic = "PUBLIC";

class ForgetCommand : public CCommandTest {
  protected:
    void SetUp() override {
        Add("org.a", "1", 100, 1000);
        Add("org.a", "2", 200, 1001);
        Add("org.b", "2", 300, 1001);
        Add("org.b", "3", 400, std::nullopt);
    }
    void Add(const std::string& application, const std::string& playback, std::int64_t second,
             std::optional<std::int64_t> uid) {
        TYBatch batch = MakeBatch({RecordOf({application, playback}, {0, TY_EVENT_START}),
                                   RecordOf({application, playback}, {1, TY_EVENT_STOP})},
                                  second * kSecond);
        batch.sender = {"bus", ":1." + std::to_string(second), uid, 4711};
        CTYStore(Db()).Add(batch);
    }
    std::vector<std::string> Left() const {
        return Column("SELECT DISTINCT service_id || ' ' || playback_id FROM records ORDER BY 1");
    }
};

const struct {
    std::vector<std::string> selection;
    std::vector<std::string> left;
} kSelections[] = {
    {{"--application", "org.a"}, {"org.b 2", "org.b 3"}},
    {{"--application", "org"}, {"org.a 1", "org.a 2", "org.b 2", "org.b 3"}},
    {{"--playback", "2"}, {"org.a 1", "org.b 3"}},
    {{"--uid", "1001"}, {"org.a 1", "org.b 3"}},
    {{"--uid", "-1"}, {"org.a 1", "org.a 2", "org.b 2"}},
    {{"--before", "@300"}, {"org.b 2", "org.b 3"}},
    {{"--all"}, {}},
};

TEST_F(ForgetCommand, PrintsItsResultInEachFormat) {
    const Result result = Run({"forget", "--all", "--yes", "--format", "json"});
    EXPECT_EQ(nlohmann::json::parse(result.out), nlohmann::json::parse(R"([{"records": 8}])"));
}

TEST_F(ForgetCommand, DeletesAndCountsWhatIsSelected) {
    for (const auto& one : kSelections) {
        SCOPED_TRACE(testing::PrintToString(one.selection));
        std::vector<std::string> command = one.selection;
        command.insert(command.begin(), {"forget", "--yes"});
        const auto gone = 2 * (4 - static_cast<int>(one.left.size()));
        EXPECT_EQ(Run(command).out, "forgot " + std::to_string(gone) + " records\n");
        EXPECT_EQ(Left(), one.left);
        EXPECT_EQ(Number("SELECT coalesce(sum(records), 0) FROM losses WHERE reason = 'forgotten' "
                         "AND application = ''"),
                  gone);
        EXPECT_EQ(Run({"check"}).code, 0);
        std::filesystem::remove(Db());
        SetUp();
    }
}

TEST_F(ForgetCommand, TakesTheBeginningOfOnePlaybackAndRefusesOthers) {
    Add("org.c", "41", 500, 1000);
    Add("org.c", "42", 600, 1000);
    Add("org.c", "57", 700, 1000);
    for (const char* pNone : {"9", ""}) {
        const Result none = Run({"forget", "--playback", pNone, "--yes"});
        EXPECT_EQ(none.code, 3);
        EXPECT_EQ(none.err, std::string("tallyra: no playback ") + pNone + "\n");
    }
    const Result several = Run({"forget", "--playback", "4", "--yes"});
    EXPECT_EQ(several.code, 2);
    EXPECT_THAT(several.err, HasSubstr("several playbacks begin with 4"));
    EXPECT_THAT(Left(), testing::SizeIs(7));
    EXPECT_EQ(Run({"forget", "--playback", "5", "--yes"}).out, "forgot 2 records\n");
    EXPECT_THAT(Left(), testing::SizeIs(6));
}

TEST_F(ForgetCommand, KeepsPoliciesAndBindings) {
    ASSERT_EQ(Run({"policy", "set", "org.a", "0"}).code, 0);
    ASSERT_EQ(Run({"policy", "bind", "org.b", "1001"}).code, 0);
    const std::string before = Run({"policy", "list"}).out;
    EXPECT_EQ(Run({"forget", "--all", "--yes"}).code, 0);
    EXPECT_EQ(Run({"policy", "list"}).out, before);
}

// One sender may serve several applications, whose records outside a playback go together.
TEST_F(ForgetCommand, RemovesTheNameFromAPlaybackSharedWithAnotherApplicationAndFromLosses) {
    TYBatch batch = MakeBatch({RecordOf({"org.gone", ""}, {0, kPlayerError}),
                               RecordOf({"org.kept", ""}, {0, kPlayerError})});
    CTYStore(Db()).Add(batch);
    Execute(
        "INSERT INTO losses(at, reason, application, playbacks, records) "
        "VALUES(1, 'rate', 'org.gone', 0, 5)");
    EXPECT_EQ(Run({"forget", "--application", "org.gone", "--yes"}).code, 0);
    EXPECT_THAT(Column("SELECT service_id FROM playbacks WHERE playback_id = ''"),
                ElementsAre("org.kept"));
    EXPECT_EQ(ReadFile(Db()).find("org.gone"), std::string::npos);
    EXPECT_EQ(Number("SELECT sum(records) FROM losses WHERE reason = 'rate'"), 5);
}

TEST_F(ForgetCommand, FailsWhileAReaderKeepsTheLog) {
    CTYStore service(Db());
    CFileReader reader(Db());
    reader.Execute("BEGIN");
    reader.Column("SELECT id FROM records");
    Result result = Run({"forget", "--all", "--yes"});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.err, HasSubstr("their bytes are still in the log"));
    EXPECT_THAT(Left(), IsEmpty());
    reader.Execute("COMMIT");
    EXPECT_EQ(Run({"forget", "--all", "--yes"}).code, 0);
    EXPECT_EQ(std::filesystem::file_size(Db() + "-wal"), 0U);
}

TEST_F(ForgetCommand, NeedsYesWithoutATerminal) {
    const Result result = Run({"forget", "--all"});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.err, HasSubstr("needs --yes"));
    EXPECT_THAT(Left(), testing::SizeIs(4));
}

TEST_F(ForgetCommand, AsksOnATerminal) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(grantpt(terminal) + unlockpt(terminal), 0);
    const std::string name = ptsname(terminal);
    const int other = open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    for (const auto& [pAnswer, left] : {std::pair("n\n", 4U), std::pair("y\n", 0U)}) {
        ASSERT_EQ(write(terminal, pAnswer, 2), 2);
        const Result result = RunProgram({"sh", "-c", R"(exec "$0" forget --all --db "$1" < "$2")",
                                          TALLYRA_COMMAND, Db(), name});
        EXPECT_EQ(result.code, left == 0 ? 0 : 1);
        EXPECT_THAT(result.err, testing::StartsWith("Delete 8 records from " + Db()));
        EXPECT_EQ(Left().size(), left);
    }
    close(other);
    close(terminal);
}

TEST_F(ForgetCommand, NamesWhatTheServiceHasSetAside) {
    const CTemporaryFolder other;
    const std::string link = other.Path() / "link.db";
    std::filesystem::create_symlink(Db(), link);
    const std::string files[] = {File("tallyra.db.damaged-2026"), File("tallyra.db.left-2026")};
    std::ofstream(files[0]) << "org.a";
    std::ofstream(files[1]) << "org.a";
    for (const std::string& db : {Db(), link}) {
        const Result result =
            RunProgram({TALLYRA_COMMAND, "forget", "--application", "org.a", "--yes", "--db", db});
        EXPECT_THAT(LinesOf(result.err),
                    testing::UnorderedElementsAre("tallyra: not searched: " + files[0],
                                                  "tallyra: not searched: " + files[1]));
    }
}

TEST_F(ForgetCommand, IsIncompleteWhileTheServiceCopiesRecordsFromADamagedStore) {
    m_Folder.Write("tallyra.db.recover-2026", "");
    const Result result = Run({"forget", "--application", "org.a", "--yes"});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.err, HasSubstr("is copying records from a damaged store"));
    EXPECT_THAT(Left(), ElementsAre("org.b 2", "org.b 3"));
}
class ForgetMoved : public ForgetCommand {
  protected:
    void SetUp() override {}
    void Fill(unsigned seed) {
        std::filesystem::remove(Db());
        CTYStore store(Db());
        std::mt19937 random(seed);
        for (int i = 0; i < 500; ++i) {
            const bool isGone = random() % 2 == 0;
            const std::string text = isGone ? kSecret : kPublic;
            TYMediaData record = MakeRecord(TY_EVENT_START, std::to_string(i));
            CopyText(record.serviceID, isGone ? "org.gone" : "org.kept");
            if (random() % 4 == 0) {
                CopyText(record.content.customInfo, Repeat(text, random() % 300).c_str());
            }
            TYBatch batch = MakeBatch({record});
            batch.urls[0] = Repeat(text, random() % 4 == 0 ? 500 : random() % 50);
            store.Add(batch);
        }
    }
    static std::string Repeat(const std::string& text, std::size_t count) {
        std::string all;
        for (std::size_t i = 0; i < count; ++i) {
            all += text;
        }
        return all;
    }
};

// When rows are deleted between others, SQLite merges pages, and leaves copies of rows behind.
// Where it does depends on the sizes of the rows: these seeds are some of the one in eight that
// show it.
TEST_F(ForgetMoved, LeavesNoTexts) {
    for (const unsigned seed : {10, 12, 23, 37, 40}) {
        SCOPED_TRACE(seed);
        Fill(seed);
        EXPECT_EQ(Run({"forget", "--application", "org.gone", "--yes"}).code, 0);
        const std::string file = ReadFile(Db());
        EXPECT_EQ(file.find(kSecret), std::string::npos);
        EXPECT_NE(file.find(kPublic), std::string::npos);
        EXPECT_EQ(Run({"check"}).code, 0);
    }
}

// Deletes as a connection without secure_delete does.
class ForgetLeftovers : public ForgetCommand {
  protected:
    void SetUp() override {
        // The end of the long one is in pages of its own, which become free.
        Store({.playback = "1", .url = "SHORT"}, {{0, TY_EVENT_START}});
        Store({.playback = "2"}, {{0, TY_EVENT_START}});
        Store({.playback = "3", .url = std::string(9000, 'u') + "LONG"}, {{0, TY_EVENT_START}});
        Store({.playback = "4"}, {{0, TY_EVENT_START}});
        Execute(
            "PRAGMA secure_delete = OFF; PRAGMA foreign_keys = ON; "
            "DELETE FROM playbacks WHERE playback_id IN ('1', '3'); "
            "UPDATE holdings SET bytes = (SELECT sum(bytes) FROM playbacks)");
        ASSERT_TRUE(IsInFile("SHORT") && IsInFile("LONG"));
    }
    bool IsInFile(const std::string& text) const {
        return ReadFile(Db()).find(text) != std::string::npos;
    }
    std::vector<std::string> Nothing() const { return {"forget", "--before", "@1", "--yes"}; }
};

TEST_F(ForgetLeftovers, InFreePagesAreClearedAlways) {
    EXPECT_EQ(Run(Nothing()).out, "forgot 0 records\n");
    EXPECT_FALSE(IsInFile("LONG"));
    EXPECT_EQ(Number("PRAGMA freelist_count"), 0);
}

TEST_F(ForgetLeftovers, InUsedPagesAreClearedByAVacuum) {
    std::vector<std::string> command = Nothing();
    command.emplace_back("--vacuum");
    EXPECT_EQ(Run(command).code, 0);
    EXPECT_FALSE(IsInFile("SHORT"));
    EXPECT_FALSE(IsInFile("LONG"));
    EXPECT_EQ(Run({"check"}).out, "no damage in 2 records\n");
}

TEST_F(ForgetCommand, LeavesACorrectStoreAndCountWhenKilled) {
    const std::vector<TYMediaData> records(
        36, RecordOf({"org.many", "9"}, {0, TY_EVENT_PLAYBACK_TIME}));
    {
        CTYStore store(Db());
        for (int i = 0; i < 400; ++i) {
            store.Add(MakeBatch(records));
        }
    }
    const std::string left = "SELECT count(*) FROM records WHERE service_id = 'org.many'";
    CProgram command(Command({"forget", "--application", "org.many", "--yes"}));
    EXPECT_TRUE(Eventually([&] { return Number(left) < 14'400; }));
    command.Signal(SIGKILL);
    EXPECT_EQ(command.Finish().code, 128 + SIGKILL);
    EXPECT_GT(Number(left), 0);
    EXPECT_EQ(Number("SELECT sum(records) FROM losses") + Number(left), 14'400);
    EXPECT_EQ(Run({"check"}).code, 0);
}

}  // namespace
