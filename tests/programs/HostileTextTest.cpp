// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// In order: a title of the window, a cleared screen, a colour, the same with C1 controls, a deleted
// character, a carriage return that overwrites the line, and a right-to-left override.
constexpr const char* kHostile =
    "\x1b]0;owned\x07\x1b[2J\x1b[31m\xc2\x9b"
    "31m\xc2\x90q\xc2\x9c\x7f\r\nfake line\b\xe2\x80\xae"
    "gpj";

class HostileText : public CCommandTest {
  protected:
    void SetUp() override {
        // An identifier holds at most 25 bytes.
        m_Script = {kHostile, std::string(kHostile).substr(0, 19), kHostile, kHostile, ":1.7"};
        Store(m_Script, {{0, TY_EVENT_START}, {10, kPlayerError, 1, 2}});
        TYMediaData record = RecordOf(m_Script, {20, TY_EVENT_BUFFERING_START});
        CopyText(record.content.genre, kHostile);
        CopyText(record.content.channelID, kHostile);
        CopyText(record.content.customInfo, kHostile);
        StoreBatch({record}, {kHostile});
    }

    // Allows printable characters, line ends and the bold header of a table.
    static void ExpectHarmless(std::string text) {
        for (const std::string own : {"\x1b[1m", "\x1b[0m", "\r\r\n", "\r\n", "\n"}) {
            for (auto at = text.find(own); at != std::string::npos; at = text.find(own)) {
                text.erase(at, own.size());
            }
        }
        EXPECT_TRUE(std::none_of(text.begin(), text.end(), [](unsigned char c) {
            return c < 0x20 || c == 0x7f;
        })) << testing::PrintToString(text);
        for (const char* pHarmful : {"\xc2\x90", "\xc2\x9b", "\xc2\x9c", "\xe2\x80\xae"}) {
            EXPECT_THAT(text, Not(HasSubstr(pHarmful)));
        }
    }
    static void ExpectHarmlessOnTerminal(std::vector<std::string> command,
                                         const std::vector<std::string>& formats) {
        command.emplace_back("--format");
        for (const std::string& format : formats) {
            command.push_back(format);
            SCOPED_TRACE(testing::PrintToString(command));
            const std::string text = RunOnTerminal(command);
            EXPECT_THAT(text, HasSubstr("owned"));
            ExpectHarmless(text);
            command.pop_back();
        }
    }

    Script m_Script;
};

TEST_F(HostileText, NeverReachesATerminal) {
    const std::vector<std::string> formats = {"table", "json", "jsonl", "csv"};
    ASSERT_EQ(Run({"policy", "set", kHostile, "0"}).code, 0);
    m_Folder.Write("image", Run({"records", "--raw"}).out);
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"records"},
                                               {"playbacks"},
                                               {"stats"},
                                               {"kpi", "--by", "application"},
                                               {"policy", "list"}}) {
        ExpectHarmlessOnTerminal(Command(command), formats);
    }
    ExpectHarmlessOnTerminal({TALLYRA_COMMAND, "decode", File("image")}, formats);
    ExpectHarmlessOnTerminal(Command({"export"}), formats);
    const std::string timeline = RunOnTerminal(Command({"show", m_Script.playback}));
    EXPECT_THAT(timeline, HasSubstr("title        ?]0;owned??[2J?[31m?31m?q???"));
    ExpectHarmless(timeline);
}

TEST_F(HostileText, NeverReachesATerminalNamedAsOutput) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    ASSERT_EQ(grantpt(terminal) + unlockpt(terminal), 0);
    const std::string name = ptsname(terminal);
    const int other = open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(Run({"export", "-n", "1", "--format", "csv", "--output", name}).code, 0);
    std::array<char, 4096> bytes;
    const ssize_t got = read(terminal, bytes.data(), bytes.size());
    ASSERT_GT(got, 0);
    const std::string text(bytes.data(), static_cast<std::size_t>(got));
    EXPECT_THAT(text, HasSubstr("owned"));
    ExpectHarmless(text);
    close(other);
    close(terminal);
}

TEST_F(HostileText, OfAStoreNeverReachesStandardError) {
    Execute("CREATE TABLE hostile(x)");
    Execute(
        "PRAGMA writable_schema = ON; UPDATE sqlite_schema SET name = 'h' || char(27, 10), "
        "sql = 'CREATE nonsense' WHERE name = 'hostile'");
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"stats"}, {"records"}, {"watch", "--once"}}) {
        const Result result = Run(command);
        EXPECT_EQ(result.code, 1);
        EXPECT_THAT(LinesOf(result.err), testing::SizeIs(1));
        ExpectHarmless(result.err);
    }
}

TEST_F(HostileText, OfAnEpochNeverReachesStandardError) {
    Execute("UPDATE store SET epoch = 'e' || char(27) || '[31m' || char(10) || 'cursor: x:1'");
    for (const std::vector<std::string>& more :
         std::vector<std::vector<std::string>>{{}, {"--after", "x:1"}}) {
        std::vector<std::string> command = {"export", "--format", "csv"};
        command.insert(command.end(), more.begin(), more.end());
        const Result result = Run(command);
        EXPECT_THAT(LinesOf(result.err), testing::SizeIs(1));
        EXPECT_THAT(result.err, HasSubstr("e?[31m?cursor: x:1"));
    }
}

TEST_F(HostileText, IsReplacedInTablesForAPager) {
    ExpectHarmless(Run({"records"}).out);
    ExpectHarmless(Run({"show", m_Script.playback}).out);
}

TEST_F(HostileText, IsPassedUnchangedToPrograms) {
    const auto rows = RunForJson({"records"});
    EXPECT_EQ(rows[0].at("url"), kHostile);
    EXPECT_EQ(rows[0].at("title"), kHostile);
    EXPECT_EQ(CsvCell(ParseCsv(Run({"records", "--format", "csv"}).out), "url"), kHostile);
}

TEST_F(HostileText, IsNoTextInAnotherScript) {
    const std::string title = "Die Türken · 東京物語 · می‌خواهم";
    Store({"org.example.player", "5", title, "u", ":1.7"}, {{0, TY_EVENT_START}});
    EXPECT_THAT(RunOnTerminal(Command({"playbacks"})), HasSubstr(title));
    EXPECT_THAT(RunOnTerminal(Command({"playbacks", "--format", "json"})), HasSubstr(title));
}

TEST_F(HostileText, OfAnyLengthIsTruncatedInTables) {
    Store({"org.example.player", "5", "t", "https://" + std::string(100'000, 'a'), ":1.7"},
          {{0, TY_EVENT_START}});
    for (const std::string& line : LinesOf(Run({"records"}).out)) {
        EXPECT_LT(line.size(), 400U);
    }
}

TEST_F(HostileText, IsNotTheBoldHeaderOfATerminal) {
    const auto command = Command({"stats"});
    EXPECT_THAT(RunOnTerminal(command), StartsWith("\x1b[1mapplication"));
    EXPECT_THAT(RunProgram(command).out, StartsWith("application"));
    ASSERT_EQ(setenv("NO_COLOR", "1", 1), 0);
    EXPECT_THAT(RunOnTerminal(command), StartsWith("application"));
    unsetenv("NO_COLOR");
}

}  // namespace
