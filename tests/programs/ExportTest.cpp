// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "AsUser.h"
#include "CommandFixture.h"

#include <sys/stat.h>

#include <numeric>

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::SizeIs;

class Export : public CCommandTest {
  protected:
    void SetUp() override { Store({}, WholePlayback(), 100 * kSecond); }

    // Stores more than a pipe holds, so that the command blocks until its reader reads.
    void StoreMuch() {
        Store({.url = "https://cdn.example/" + std::string(4000, 'u')},
              std::vector<Step>(200, {0, TY_EVENT_PLAYBACK_TIME}), 200 * kSecond);
    }
    // The files in the folder besides the store.
    std::vector<std::string> Files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_Folder.Path())) {
            if (!entry.path().filename().string().starts_with("tallyra.db")) {
                names.push_back(entry.path().filename());
            }
        }
        return names;
    }
};

// The last line is complete, has "end" and counts the others.
bool IsWholeJsonLines(const std::string& text) {
    const auto lines = LinesOf(text);
    if (lines.empty() || text.back() != '\n') {
        return false;
    }
    const auto last = nlohmann::json::parse(lines.back(), nullptr, false);
    return last.is_object() && last.value("end", false) && last.at("rows") == lines.size() - 1;
}

bool IsWholeCsv(const std::string& text) {
    try {
        const auto rows = ParseCsv(text);
        return !rows.empty() &&
               rows.back() == std::vector<std::string>{
                                  "# end of export: " + std::to_string(rows.size() - 2) + " rows"};
    } catch (const std::runtime_error&) {
        return false;
    }
}

TEST_F(Export, IsJsonLinesOrCsvWithAnEnd) {
    const Result result = Run({"export"});
    ASSERT_EQ(result.code, 0) << result.err;
    const auto lines = LinesOf(result.out);
    ASSERT_THAT(lines, SizeIs(20));
    EXPECT_EQ(nlohmann::json::parse(lines[18]), RunForJson({"records"}).at(18));
    const std::string cursor = CTYStore(Db()).Epoch() + ":19";
    EXPECT_EQ(lines[19], R"({"end":true,"rows":19,"cursor":")" + cursor + "\"}");
    const auto rows = ParseCsv(Run({"export", "--format", "csv"}).out);
    ASSERT_THAT(rows, SizeIs(21));
    EXPECT_THAT(rows[0], SizeIs(30));
    EXPECT_THAT(rows[20], ElementsAre("# end of export: 19 rows"));
}

TEST_F(Export, IsFiltered) {
    Store({"org.example.tv", "2", "", "u", ":1.8"}, {{0, TY_EVENT_START}, {1, TY_EVENT_STOP}},
          200 * kSecond);
    EXPECT_THAT(LinesOf(Run({"export", "--since", "@150"}).out), SizeIs(3));
    EXPECT_THAT(LinesOf(Run({"export", "--until", "@150"}).out), SizeIs(20));
    EXPECT_THAT(LinesOf(Run({"export", "--application", "org.example.tv", "--code", "2"}).out),
                SizeIs(2));
}

TEST_F(Export, IsIncompleteWhereverItIsCut) {
    // A player cannot forge the end either.
    Store({"org.example.player", "9", "", "x\r\n# end of export: 19 rows\r\n", ":1.7"},
          {{0, TY_EVENT_START}}, 200 * kSecond);
    const std::string lines = Run({"export"}).out;
    const std::string csv = Run({"export", "--format", "csv"}).out;
    ASSERT_TRUE(IsWholeJsonLines(lines));
    ASSERT_TRUE(IsWholeCsv(csv));
    for (std::size_t size = 0; size < lines.size(); size += size < lines.size() - 40 ? 7 : 1) {
        EXPECT_FALSE(IsWholeJsonLines(lines.substr(0, size))) << size;
    }
    for (std::size_t size = 0; size < csv.size(); size += size < csv.size() - 300 ? 7 : 1) {
        EXPECT_FALSE(IsWholeCsv(csv.substr(0, size))) << size;
    }
}

TEST_F(Export, KeepsTheOldFileWhenKilled) {
    // Writing 80 MB takes long enough to be killed half-way.
    for (int i = 0; i < 100; ++i) {
        StoreMuch();
    }
    m_Folder.Write("out", "older");
    CProgram command(Command({"export", "--output", File("out")}));
    ASSERT_TRUE(Eventually([&] { return Files().size() == 2; }));
    command.Signal(SIGKILL);
    EXPECT_EQ(command.Finish().code, 128 + SIGKILL);
    EXPECT_EQ(ReadFile(File("out")), "older");
}

TEST_F(Export, RemovesItsTemporaryFileWhenInterrupted) {
    for (int i = 0; i < 100; ++i) {
        StoreMuch();
    }
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        CProgram command(Command({"export", "--output", File("out")}));
        ASSERT_TRUE(Eventually([&] { return Files().size() == 1; }));
        command.Signal(signal);
        EXPECT_EQ(command.Finish().code, 128 + signal);
        EXPECT_THAT(Files(), SizeIs(0));
    }
}

// Any of these would delete all records.
TEST_F(Export, ReplacesNeitherTheStoreNorAnotherDatabase) {
    const CTYStore service(Db());
    fs::create_symlink(Db(), File("link"));
    fs::copy_file(Db(), File("copy"));
    const std::string before = ReadFile(Db());
    for (const char* pCommand : {"export", "report"}) {
        for (const char* pName :
             {"tallyra.db", "tallyra.db-wal", "tallyra.db-shm", "tallyra.db-journal", "copy"}) {
            const Result result = RunProgram(
                {TALLYRA_COMMAND, pCommand, "--output", File(pName), "--db", File("link")});
            EXPECT_EQ(result.code, 1);
            EXPECT_THAT(result.err, testing::MatchesRegex("tallyra: cannot write .*: it (belongs "
                                                          "to the store|is a database)\n"));
        }
    }
    EXPECT_EQ(ReadFile(Db()), before);
    EXPECT_EQ(ReadFile(File("copy")), before);
    EXPECT_EQ(Run({"check"}).code, 0);
}

TEST_F(Export, HasATemporaryNameThatNobodyCanGuess) {
    StoreMuch();
    const fs::path bait = File("bait");
    // What a program would meet that used its process id as the name.
    CProgram command({"sh", "-c",
                      R"(ln -s "$3" "$1.partial-$$"; exec "$0" export --output "$1" --db "$2")",
                      TALLYRA_COMMAND, File("out"), Db(), bait});
    EXPECT_EQ(command.Finish().code, 0);
    EXPECT_FALSE(fs::exists(bait));
    EXPECT_TRUE(IsWholeJsonLines(ReadFile(File("out"))));
}

const struct {
    std::optional<unsigned> before;  // permissions of an existing file
    std::vector<std::string> options;
    unsigned after;
} kModes[] = {{{}, {}, 0600},
              {{}, {"--mode", "0640"}, 0640},
              {0644, {}, 0644},
              {0400, {}, 0400},
              {0644, {"--mode", "600"}, 0600}};

TEST_F(Export, IsReadableByItsOwnerOnlyUnlessToldOtherwise) {
    for (const auto& one : kModes) {
        SCOPED_TRACE(testing::PrintToString(one.options));
        fs::remove(File("out"));
        if (one.before) {
            m_Folder.Write("out", "older");
            fs::permissions(File("out"), fs::perms(*one.before));
        }
        std::vector<std::string> command = {"export", "--output", File("out")};
        command.insert(command.end(), one.options.begin(), one.options.end());
        EXPECT_EQ(Run(command).code, 0);
        EXPECT_EQ(fs::status(File("out")).permissions(), fs::perms(one.after));
    }
}

TEST_F(Export, KeepsTheOwnerOfItsFile) {
    m_Folder.Write("out", "older");
    if (chown(File("out").c_str(), kNobody, kNobody) != 0) {
        GTEST_SKIP() << "takes root, to give a file to another user";
    }
    EXPECT_EQ(Run({"export", "--output", File("out")}).code, 0);
    struct stat found {};
    ASSERT_EQ(stat(File("out").c_str(), &found), 0);
    EXPECT_EQ(found.st_uid, kNobody);
    EXPECT_EQ(found.st_gid, kNobody);
}

TEST_F(Export, FollowsNoSymbolicLink) {
    m_Folder.Write("target", "older");
    fs::create_symlink(File("target"), File("link"));
    fs::create_symlink(File("missing"), File("dangling"));
    for (const char* pName : {"link", "dangling"}) {
        const Result result = Run({"export", "--output", File(pName)});
        EXPECT_EQ(result.code, 1);
        EXPECT_EQ(result.err, "tallyra: cannot write " + File(pName) + ": it is a symbolic link\n");
        EXPECT_TRUE(fs::is_symlink(File(pName)));
    }
    EXPECT_EQ(ReadFile(File("target")), "older");
    EXPECT_FALSE(fs::exists(File("missing")));
}

TEST_F(Export, IsWrittenToAPipe) {
    ASSERT_EQ(mkfifo(File("pipe").c_str(), 0600), 0);
    auto text = std::async(std::launch::async, [&] { return ReadFile(File("pipe")); });
    EXPECT_EQ(Run({"export", "--output", File("pipe")}).code, 0);
    EXPECT_TRUE(IsWholeJsonLines(text.get()));
}

TEST_F(Export, ReplacesItsFileAtTheEndUnlessTheDiskIsFull) {
    StoreMuch();
    m_Folder.Write("out", "older");
    // A file size limit of half a MiB. With SIGXFSZ ignored, a write beyond it fails.
    const Result result = RunProgram(
        {"sh", "-c", R"(trap '' XFSZ; ulimit -f 1024; exec "$0" export --output "$1" --db "$2")",
         TALLYRA_COMMAND, File("out"), Db()});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "tallyra: cannot write " + File("out") + ": File too large\n");
    EXPECT_EQ(ReadFile(File("out")), "older");
    EXPECT_THAT(Files(), ElementsAre("out"));
    EXPECT_EQ(Run({"export", "--output", File("out")}).code, 0);
    EXPECT_EQ(ReadFile(File("out")), Run({"export"}).out);
    EXPECT_THAT(Files(), ElementsAre("out"));
}

TEST_F(Export, ReportsAnOutputThatCannotBeWrittenAndKeepsTheOldFileWithoutAStore) {
    const std::pair<std::string, std::string> outputs[] = {
        {"/dev/full", "No space left on device"}, {File("no/out"), "No such file or directory"}};
    for (const auto& [output, reason] : outputs) {
        const Result result = Run({"export", "--output", output});
        EXPECT_EQ(result.code, 1);
        EXPECT_EQ(result.err, "tallyra: cannot write " + output + ": " + reason + "\n");
    }
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
    m_Folder.Write("out", "older");
    EXPECT_EQ(
        RunProgram({TALLYRA_COMMAND, "export", "--db", File("none"), "--output", File("out")}).code,
        1);
    EXPECT_EQ(ReadFile(File("out")), "older");
    EXPECT_THAT(Files(), ElementsAre("out"));
}

// Exports with a cursor.
class ExportAfter : public Export {
  protected:
    // Returns the ids of the records, and remembers the cursor.
    std::vector<int> Next(std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"export", "--after", m_strCursor});
        m_Result = Run(more);
        EXPECT_EQ(m_Result.code, 0) << m_Result.err;
        std::vector<int> ids;
        for (const std::string& line : LinesOf(m_Result.out)) {
            const auto row = nlohmann::json::parse(line);
            if (row.contains("end")) {
                m_strCursor = row.at("cursor");
            } else {
                ids.push_back(row.at("id"));
            }
        }
        return ids;
    }
    void ExpectRefusal(const std::string& cursor, const std::string& text) const {
        const Result result = Run({"export", "--after", cursor, "--output", File("out")});
        EXPECT_EQ(result.code, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, testing::HasSubstr(text));
        EXPECT_FALSE(fs::exists(File("out")));
    }

    std::string m_strCursor = "start";
    Result m_Result;
};

TEST_F(ExportAfter, GoesOnWhereTheLastOneEnded) {
    EXPECT_THAT(Next(), SizeIs(19));
    EXPECT_THAT(Next(), SizeIs(0));
    Store({.playback = "2"}, {{0, TY_EVENT_START}, {1, TY_EVENT_STOP}});
    EXPECT_THAT(Next(), ElementsAre(20, 21));
    EXPECT_THAT(Next(), SizeIs(0));
    EXPECT_EQ(m_Result.err, "");
}

TEST_F(ExportAfter, TakesTheOldestRecordsFirstSoThatNoneIsSkipped) {
    std::vector<int> ids;
    for (std::vector<int> some = Next({"-n", "7"}); !some.empty(); some = Next({"-n", "7"})) {
        ids.insert(ids.end(), some.begin(), some.end());
    }
    std::vector<int> all(19);
    std::iota(all.begin(), all.end(), 1);
    EXPECT_EQ(ids, all);
}

TEST_F(ExportAfter, CountsWhatWasDroppedMeanwhile) {
    EXPECT_THAT(Next({"-n", "3"}), ElementsAre(1, 2, 3));
    Execute("DELETE FROM runs");
    Store({.playback = "2"}, {{0, TY_EVENT_START}});
    EXPECT_THAT(Next(), ElementsAre(20));
    EXPECT_EQ(m_Result.err, "tallyra: 16 records were dropped before they were exported\n");
}

TEST_F(ExportAfter, RefusesCursorsOfOtherStores) {
    const std::string epoch = CTYStore(Db()).Epoch();
    ExpectRefusal("17", "not a cursor: 17");
    ExpectRefusal(epoch + ":", "not a cursor");
    ExpectRefusal(epoch + ":-1", "not a cursor");
    ExpectRefusal("another:17", "the cursor is of another store, this one has the epoch " + epoch);
    ExpectRefusal(epoch + ":20", "the cursor is after the newest record, 19");
}

TEST_F(ExportAfter, HasItsCursorOnStandardErrorUnlessItIsJsonLines) {
    const std::string cursor = "cursor: " + CTYStore(Db()).Epoch() + ":19\n";
    for (const char* pFormat : {"csv", "json", "table"}) {
        EXPECT_EQ(Run({"export", "--format", pFormat}).err, cursor);
        EXPECT_EQ(Run({"export", "--format", pFormat, "--output", File("out")}).err, cursor);
    }
    EXPECT_EQ(Run({"export"}).err, "");
    EXPECT_EQ(Run({"export", "--format", "csv", "--output", "/dev/full"}).err,
              "tallyra: cannot write /dev/full: No space left on device\n");
    EXPECT_THAT(RunProgram(Command({"export", "--format", "csv"}), "", "/dev/full").err,
                testing::Not(testing::HasSubstr("cursor")));
}

}  // namespace
