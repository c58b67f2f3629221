// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"
#include "TYRecordImage.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>

namespace {

using testing::HasSubstr;
using testing::Not;

// A title bar's text, a cleared screen and colours; the same with the one-character forms of eight
// bits; a deleted character; a carriage return that overwrites; and a text that runs backwards.
constexpr const char* kHostile =
    "\x1b]0;owned\x07\x1b[2J\x1b[31m\xc2\x9b"
    "31m\xc2\x90q\xc2\x9c\x7f\r\nfake line\b\xe2\x80\xae"
    "gpj";

class CHostileTextTest : public CStoreTest {
  protected:
    void SetUp() override {
        // An identifier has room for 24 bytes, and the text's sequences stand at its front.
        const std::string identifier = std::string(kHostile).substr(0, 19);
        m_Script = Script{kHostile, identifier, kHostile, kHostile, ":1.7"};
        Store(m_Script, {{0, 1}, {10, 250, 1, 2}}, NowNs());
        TYMediaData record = RecordOf(m_Script, {20, 4});
        for (auto* pText : {record.content.genre, record.content.channelID}) {
            std::snprintf(pText, 60, "%s", kHostile);
        }
        CopyText(record.content.customInfo, kHostile);
        StoreBatch({record}, {kHostile}, NowNs());
    }

    // What a terminal gets: printable characters, line ends, and our own bold header.
    static void ExpectHarmless(std::string text) {
        for (const char* pOwn : {"\x1b[1m", "\x1b[0m", "\r\r\n", "\r\n", "\n"}) {
            const std::string own = pOwn;
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

    Script m_Script;
};

TEST_F(CHostileTextTest, NeverReachesATerminal) {
    ASSERT_EQ(Run({"policy", "set", kHostile, "0"}).code, 0);
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"records"}, {"playbacks"}, {"stats"}, {"policy", "list"}}) {
        for (const char* pFormat : {"table", "json", "csv"}) {
            auto arguments = Command(command);
            arguments.insert(arguments.end(), {"--format", pFormat});
            const std::string text = RunOnTerminal(arguments);
            EXPECT_THAT(text, HasSubstr("owned")) << command[0] << " " << pFormat;
            ExpectHarmless(text);
        }
    }
}

TEST_F(CHostileTextTest, NeverReachesATerminalFromATimeline) {
    const std::string text = RunOnTerminal(Command({"show", m_Script.playback}));
    EXPECT_THAT(text, HasSubstr("title        ?]0;owned??[2J?[31m?31m?q???"));
    ExpectHarmless(text);
}

TEST_F(CHostileTextTest, NeverReachesATerminalFromAnExport) {
    for (const char* pFormat : {"jsonl", "csv"}) {
        const std::string text = RunOnTerminal(Command({"export", "--format", pFormat}));
        EXPECT_THAT(text, HasSubstr("owned"));
        ExpectHarmless(text);
    }
}

TEST_F(CHostileTextTest, NeverReachesATerminalFromAnImage) {
    m_Folder.Write("image", Run({"records", "--raw"}).out);
    for (const char* pFormat : {"table", "json", "csv"}) {
        const std::string text =
            RunOnTerminal({TALLYRA_COMMAND, "decode", File("image"), "--format", pFormat});
        EXPECT_THAT(text, HasSubstr("owned"));
        ExpectHarmless(text);
    }
}

TEST_F(CHostileTextTest, IsHarmlessInATableForAPager) {
    ExpectHarmless(Run({"records"}).out);
    ExpectHarmless(Run({"show", m_Script.playback}).out);
}

TEST_F(CHostileTextTest, IsWholeForPrograms) {
    const auto rows = RunForJson({"records"});
    EXPECT_EQ(rows[0].at("url"), kHostile);
    EXPECT_EQ(rows[0].at("title"), kHostile);
    EXPECT_EQ(ParseCsv(Run({"records", "--format", "csv"}).out)[1][14], kHostile);
}

TEST_F(CHostileTextTest, LeavesOtherScriptsAsTheyAre) {
    const std::string title = "Die Türken · 東京物語 · می‌خواهم";
    Store(Script{"org.example.player", "5", title, "u", ":1.7"}, {{0, 1}}, NowNs());
    EXPECT_THAT(RunOnTerminal(Command({"playbacks"})), HasSubstr(title));
    EXPECT_THAT(RunOnTerminal(Command({"playbacks", "--format", "json"})), HasSubstr(title));
}

TEST_F(CHostileTextTest, OfAnyLengthTakesABoundedPlaceInATable) {
    Store(Script{"org.example.player", "5", "t", "https://" + std::string(100'000, 'a'), ":1.7"},
          {{0, 1}}, NowNs());
    for (const std::string& line : LinesOf(Run({"records"}).out)) {
        EXPECT_LT(line.size(), 400U);
    }
}

TEST(Terminal, HasABoldHeaderUnlessToldOtherwise) {
    const CTemporaryFolder folder;
    const std::string db = folder.Path() / "tallyra.db";
    CTYStore store(db);
    const std::vector<std::string> command = {TALLYRA_COMMAND, "stats", "--db", db};

    EXPECT_THAT(RunOnTerminal(command), testing::StartsWith("\x1b[1mapplication"));
    EXPECT_THAT(RunProgram(command).out, testing::StartsWith("application"));
    ASSERT_EQ(setenv("NO_COLOR", "1", 1), 0);
    EXPECT_THAT(RunOnTerminal(command), testing::StartsWith("application"));
    unsetenv("NO_COLOR");
}

}  // namespace
