// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

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
    const auto row = nlohmann::json::parse(lines[18]);
    EXPECT_EQ(row.at("event"), int{TY_EVENT_PLAYING_TIME});
    EXPECT_EQ(row.at("param2"), 30000);
    EXPECT_EQ(row.at("url"), "https://cdn.example/long-way-home.mp4");
    EXPECT_EQ(lines[19], R"({"end":true,"rows":19})");
    const auto rows = ParseCsv(Run({"export", "--format", "csv"}).out);
    ASSERT_THAT(rows, SizeIs(21));
    EXPECT_THAT(rows[0], SizeIs(23));
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
    StoreMuch();
    m_Folder.Write("out", "older");
    // A FIFO in place of the temporary file, so that the command blocks half-way.
    CProgram command({"sh", "-c",
                      R"(mkfifo "$1.partial-$$"; exec "$0" export --output "$1" --db "$2")",
                      TALLYRA_COMMAND, File("out"), Db()});
    const std::string partial = File("out") + ".partial-" + std::to_string(command.Pid());
    ASSERT_TRUE(Eventually([&] { return fs::exists(partial); }));
    // Opened without waiting for the writer, and kept open until the command is dead.
    const int reader = open(partial.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    std::array<char, 6> begin{};
    EXPECT_TRUE(Eventually([&] { return read(reader, begin.data(), begin.size()) == 6; }));
    EXPECT_EQ(std::string(begin.begin(), begin.end()), "{\"id\":");
    command.Signal(SIGKILL);
    EXPECT_EQ(command.Finish().code, 128 + SIGKILL);
    EXPECT_EQ(ReadFile(File("out")), "older");
    close(reader);
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

}  // namespace
