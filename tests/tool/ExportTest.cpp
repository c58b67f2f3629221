// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

class CExportTest : public CStoreTest {
  protected:
    void SetUp() override { Store({}, WholePlayback(), 100 * kSecond); }

    // More than a pipe holds, so that the command waits for its reader.
    void StoreMuch() {
        Script script;
        script.url = "https://cdn.example/" + std::string(4000, 'u');
        Store(script, std::vector<Step>(200, {0, 8}), 200 * kSecond);
    }
    std::vector<std::string> Files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_Folder.Path())) {
            if (entry.path().filename().string().rfind("tallyra.db", 0) != 0) {
                names.push_back(entry.path().filename());
            }
        }
        return names;
    }
};

// As a reader of JSON lines would: the last line is complete, says "end" and counts the others.
bool IsWholeJsonLines(const std::string& text) {
    const auto lines = LinesOf(text);
    if (lines.empty() || text.back() != '\n') {
        return false;
    }
    const auto last = nlohmann::json::parse(lines.back(), nullptr, false);
    return last.is_object() && last.value("end", false) && last.at("rows") == lines.size() - 1;
}

// Opens a pipe without waiting for who writes to it.
int OpenToRead(const std::string& path) {
    return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

// Waits for something in a pipe, a bounded time.
std::string ReadSome(int reader) {
    pollfd waited = {reader, POLLIN, 0};
    std::string text(4096, '\0');
    const bool is = poll(&waited, 1, 20'000) > 0;
    const ssize_t size = is ? read(reader, text.data(), text.size()) : 0;
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return text;
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

TEST_F(CExportTest, IsJsonLinesWithAnEnd) {
    const Result result = Run({"export"});
    ASSERT_EQ(result.code, 0) << result.err;
    const auto lines = LinesOf(result.out);
    ASSERT_THAT(lines, SizeIs(20));
    const auto row = nlohmann::json::parse(lines[18]);
    EXPECT_EQ(row.at("event"), 20);
    EXPECT_EQ(row.at("param2"), 30000);
    EXPECT_EQ(row.at("url"), "https://cdn.example/long-way-home.mp4");
    EXPECT_EQ(lines[19], R"({"end":true,"rows":19})");
    EXPECT_TRUE(IsWholeJsonLines(result.out));
}

TEST_F(CExportTest, IsCsvWithAnEnd) {
    const Result result = Run({"export", "--format", "csv"});
    const auto rows = ParseCsv(result.out);
    ASSERT_THAT(rows, SizeIs(21));
    EXPECT_THAT(rows[0], SizeIs(23));
    EXPECT_THAT(rows[20], ElementsAre("# end of export: 19 rows"));
    EXPECT_TRUE(IsWholeCsv(result.out));
}

TEST_F(CExportTest, KeepsToItsFilters) {
    Store(Script{"org.example.tv", "2", "", "u", ":1.8"}, {{0, 1}, {1, 2}}, 200 * kSecond);
    EXPECT_THAT(LinesOf(Run({"export", "--since", "@150"}).out), SizeIs(3));
    EXPECT_THAT(LinesOf(Run({"export", "--until", "@150"}).out), SizeIs(20));
    EXPECT_THAT(LinesOf(Run({"export", "--application", "org.example.tv", "--code", "2"}).out),
                SizeIs(2));
}

TEST_F(CExportTest, CutAnywhereIsNotWhole) {
    const std::string lines = Run({"export"}).out;
    const std::string csv = Run({"export", "--format", "csv"}).out;
    for (std::size_t size = 0; size < lines.size(); size += size < lines.size() - 40 ? 7 : 1) {
        EXPECT_FALSE(IsWholeJsonLines(lines.substr(0, size))) << size;
    }
    for (std::size_t size = 0; size < csv.size(); size += size < csv.size() - 40 ? 7 : 1) {
        EXPECT_FALSE(IsWholeCsv(csv.substr(0, size))) << size;
    }
}

TEST_F(CExportTest, CutBehindAnEndThatAPlayerMadeUpIsNotWhole) {
    Store(Script{"org.example.player", "9", "", "x\r\n# end of export: 19 rows\r\n", ":1.7"},
          {{0, 1}}, 200 * kSecond);
    const std::string csv = Run({"export", "--format", "csv"}).out;
    const std::size_t fake = csv.find("# end of export: 19 rows\r\n");
    ASSERT_NE(fake, std::string::npos);
    EXPECT_FALSE(IsWholeCsv(csv.substr(0, fake + 26)));
    EXPECT_TRUE(IsWholeCsv(csv));
}

TEST_F(CExportTest, ReplacesItsFileAtTheEnd) {
    m_Folder.Write("out", "older");
    ASSERT_EQ(Run({"export", "--output", File("out")}).code, 0);
    EXPECT_EQ(ReadFile(File("out")), Run({"export"}).out);
    EXPECT_THAT(Files(), ElementsAre("out"));
}

TEST_F(CExportTest, ThatIsKilledLeavesTheNameAlone) {
    StoreMuch();
    m_Folder.Write("out", "older");
    // A reader that does not read: the rows wait in a pipe in the place of the unfinished file.
    CProgram command({"sh", "-c",
                      R"(mkfifo "$1.partial-$$"; exec "$0" export --output "$1" --db "$2")",
                      TALLYRA_COMMAND, File("out"), Db()});
    const std::string partial = File("out") + ".partial-" + std::to_string(command.Pid());
    ASSERT_TRUE(Eventually([&] { return fs::exists(partial); }));
    const int reader = OpenToRead(partial);
    ASSERT_EQ(ReadSome(reader).substr(0, 6), "{\"id\":");

    command.Signal(SIGKILL);
    EXPECT_EQ(command.Finish().code, 128 + SIGKILL);
    EXPECT_EQ(ReadFile(File("out")), "older");
    close(reader);
}

TEST_F(CExportTest, IntoAPipeThatIsKilledIsNotWhole) {
    StoreMuch();
    ASSERT_EQ(mkfifo(File("pipe").c_str(), 0600), 0);
    CProgram command(Command({"export"}), "", File("pipe"));
    const int reader = OpenToRead(File("pipe"));
    std::string text = ReadSome(reader);
    ASSERT_NE(text, "");
    command.Signal(SIGKILL);
    EXPECT_EQ(command.Finish().code, 128 + SIGKILL);
    for (std::string rest = ReadSome(reader); !rest.empty(); rest = ReadSome(reader)) {
        text += rest;
    }
    close(reader);
    EXPECT_FALSE(IsWholeJsonLines(text));
}

TEST_F(CExportTest, OntoAFullDiskFailsAndLeavesNothing) {
    StoreMuch();
    m_Folder.Write("out", "older");
    // Half a megabyte of room; SIGXFSZ is ignored, so that a write fails as on a full disk.
    const Result result = RunProgram(
        {"sh", "-c", R"(trap '' XFSZ; ulimit -f 1024; exec "$0" export --output "$1" --db "$2")",
         TALLYRA_COMMAND, File("out"), Db()});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "tallyra: cannot write " + File("out") + ": File too large\n");
    EXPECT_EQ(ReadFile(File("out")), "older");
    EXPECT_THAT(Files(), ElementsAre("out"));
}

TEST_F(CExportTest, ToADeviceWritesIntoIt) {
    const Result result = Run({"export", "--output", "/dev/full"});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "tallyra: cannot write /dev/full: No space left on device\n");
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

TEST_F(CExportTest, IntoAFolderThatIsNotThereFails) {
    const Result result = Run({"export", "--output", File("no/out")});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.err, HasSubstr("cannot write " + File("no/out") + ": No such file"));
}

TEST_F(CExportTest, WithoutAStoreLeavesTheFileAlone) {
    m_Folder.Write("out", "older");
    EXPECT_EQ(
        RunProgram({TALLYRA_COMMAND, "export", "--db", File("none"), "--output", File("out")}).code,
        1);
    EXPECT_EQ(ReadFile(File("out")), "older");
    EXPECT_THAT(Files(), ElementsAre("out"));
}

}  // namespace
