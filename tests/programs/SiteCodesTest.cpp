// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

#include <sys/stat.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kCodes = R"(# Codes of our players.
[errors]
210=DRM_LICENCE_REFUSED
 211 = no_route

[events]
120=LICENCE_ANSWER
)";

/// A store with two errors and two records that the library does not name.
class SiteCodes : public CCommandTest {
  protected:
    void SetUp() override {
        Store({}, {{0, TY_EVENT_START}, {1, 210}, {2, 211}, {3, 120}, {4, 121}});
        m_Folder.Write("codes.conf", kCodes);
    }
    Result RunWith(const std::string& variable, const std::vector<std::string>& arguments) const {
        std::vector<std::string> words = Command(arguments);
        words.insert(words.begin(), {"env", "TALLYRA_CODES=" + variable});
        return RunProgram(words);
    }
    Result RunWithLines(const std::string& lines, std::vector<std::string> arguments) const {
        m_Folder.Write("lines.conf", lines);
        arguments.insert(arguments.end(), {"--codes", File("lines.conf")});
        return Run(arguments);
    }
};

TEST_F(SiteCodes, AreNamedInEveryCommandThatPrintsEvents) {
    const std::vector<std::vector<std::string>> commands = {{"records"},
                                                            {"show", Script().playback}};
    for (const auto& command : commands) {
        const Result result = RunWith(File("codes.conf"), command);
        EXPECT_EQ(result.err, "");
        for (const char* pName : {"DRM_LICENCE_REFUSED", "NO_ROUTE", "LICENCE_ANSWER", "121"}) {
            EXPECT_THAT(result.out, HasSubstr(pName)) << command[0];
        }
    }
    const std::string raw = Run({"records", "--raw"}).out;
    const Result decoded = RunProgram(
        {TALLYRA_COMMAND, "decode", "--codes", File("codes.conf"), "--format", "csv"}, raw);
    EXPECT_THAT(decoded.out, HasSubstr("LICENCE_ANSWER"));
}

TEST_F(SiteCodes, TellEventsFromFreeFormRecords) {
    const auto kinds = [&](const std::vector<std::string>& more) {
        std::vector<std::string> command = {"records"};
        command.insert(command.end(), more.begin(), more.end());
        return Each<std::string>(RunForJson(command), "kind");
    };
    EXPECT_THAT(kinds({}), ElementsAre("event", "error", "error", "free-form", "free-form"));
    EXPECT_THAT(kinds({"--codes", File("codes.conf")}),
                ElementsAre("event", "error", "error", "event", "free-form"));
}

TEST_F(SiteCodes, SelectRecordsByName) {
    // The options may have any order.
    const auto rows =
        RunForJson({"records", "--code", "drm_licence_refused", "--codes", File("codes.conf")});
    EXPECT_THAT(Each<int>(rows, "id"), ElementsAre(2));
    EXPECT_EQ(Run({"records", "--code", "DRM_LICENCE_REFUSED"}).code, 2);
}

TEST_F(SiteCodes, OfTheOptionComeBeforeThoseOfTheEnvironment) {
    m_Folder.Write("other.conf", "[errors]\n210=OTHER\n");
    const Result result = RunWith(File("codes.conf"), {"records", "--codes", File("other.conf")});
    EXPECT_THAT(result.out, HasSubstr("OTHER"));
    EXPECT_THAT(result.out, testing::Not(HasSubstr("NO_ROUTE")));
}

TEST_F(SiteCodes, OfTheSystemApplyWithoutAnyOther) {
    const Result result =
        RunProgram({"unshare", "-m", "sh", "-c",
                    "mount -t tmpfs tmpfs /etc && mkdir /etc/tallyra && cp \"$0\" /etc/tallyra && "
                    "unset TALLYRA_CODES && exec \"$1\" records --db \"$2\"",
                    File("codes.conf"), TALLYRA_COMMAND, Db()});
    if (result.err.find("unshare: ") != std::string::npos ||
        result.err.find("mount: ") != std::string::npos) {
        GTEST_SKIP() << "takes the right to mount, to have a folder /etc of its own";
    }
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, HasSubstr("DRM_LICENCE_REFUSED"));
}

const struct {
    const char* pLine;
    const char* pError;
} kBadLines[] = {
    {"DRM", "'DRM' is not CODE=NAME below [events] or [errors]"},
    {"=DRM", "'=DRM' is not CODE=NAME below [events] or [errors]"},
    {"[players]", "'[players]' is neither [events] nor [errors]"},
    {"[errors", "'[errors' is neither [events] nor [errors]"},
    {"drm=DRM", "'drm' is not a code from 200 to 255"},
    {"199=DRM", "'199' is not a code from 200 to 255"},
    {"256=DRM", "'256' is not a code from 200 to 255"},
    {"250=", "the name '' has other characters than letters, digits and _"},
    {"250=7TH", "the name '7TH' has other characters than letters, digits and _"},
    {"250=a\033[2Jb", "the name 'a?[2Jb' has other characters than letters, digits and _"},
    {"210=AGAIN", "the code 210 already has a name"},
    {"201=MINE", "the code 201 already has a name"},
    {"250=drm_licence_refused", "the name DRM_LICENCE_REFUSED already has a code"},
    {"250=START", "the name START already has a code"},
};

TEST_F(SiteCodes, IgnoreBadLinesAndReportEach) {
    for (const auto& one : kBadLines) {
        SCOPED_TRACE(one.pLine);
        const Result result =
            RunWithLines("[errors]\n210=DRM_LICENCE_REFUSED\n" + std::string(one.pLine) +
                             "\r\n[errors]\n211=NO_ROUTE\n",
                         {"records"});
        EXPECT_EQ(result.code, 0);
        EXPECT_THAT(result.err, HasSubstr("tallyra: " + File("lines.conf") + ", line 3: "));
        EXPECT_THAT(result.err, HasSubstr(one.pError));
        EXPECT_EQ(LinesOf(result.err).size(), 1U) << result.err;
        EXPECT_THAT(result.out, HasSubstr("NO_ROUTE"));
    }
    EXPECT_THAT(RunWithLines("[events]\n200=A", {"records"}).err,
                HasSubstr("'200' is not a code from 0 to 199"));
}

TEST_F(SiteCodes, MayBeginWithAByteOrderMark) {
    EXPECT_EQ(RunWithLines("\xef\xbb\xbf[errors]\n210=OURS\n", {"records"}).err, "");
}

TEST_F(SiteCodes, AreReportedWithWhatFollowsANullCharacter) {
    using namespace std::string_literals;
    EXPECT_THAT(RunWithLines("[errors]\nA\0B\n"s, {"records"}).err, HasSubstr("line 2: 'A?B' is"));
}

TEST_F(SiteCodes, ReportsOnlyTheFirstTenBadLines) {
    std::string lines = "[errors]\n";
    for (int i = 0; i < 1000; ++i) {
        lines += "bad\n";
    }
    const auto errors = LinesOf(RunWithLines(lines, {"records"}).err);
    ASSERT_EQ(errors.size(), 11U);
    EXPECT_EQ(errors[10], "tallyra: " + File("lines.conf") + ": 990 more lines ignored");
}

// These would block, or never end.
TEST_F(SiteCodes, AreReadFromSmallRegularFilesOnly) {
    ASSERT_EQ(mkfifo(File("pipe").c_str(), 0600), 0);
    m_Folder.Write("large", std::string((1 << 20) + 1, '#'));
    m_Folder.Write("largest", std::string(1 << 20, '#'));
    const std::pair<std::string, std::string> refused[] = {
        {File("pipe"), "it is no regular file"},
        {"/dev/zero", "it is no regular file"},
        {m_Folder.Path(), "it is no regular file"},
        {File("large"), "it is larger than 1 MiB"}};
    for (const auto& [path, reason] : refused) {
        EXPECT_EQ(RunWith(path, {"records"}).err,
                  "tallyra: cannot read the codes in " + path + ": " + reason + "\n");
        EXPECT_EQ(Run({"records", "--codes", path}).code, 2);
    }
    EXPECT_EQ(Run({"records", "--codes", File("largest")}).code, 0);
}

TEST_F(SiteCodes, ThatCannotBeReadAreRefusedIfAnOptionNamesThem) {
    const Result refused = Run({"records", "--codes", File("missing.conf")});
    EXPECT_EQ(refused.code, 2);
    EXPECT_THAT(refused.err, HasSubstr("cannot read the codes in " + File("missing.conf") +
                                       ": No such file or directory\n"));
    const Result result = RunWith(File("missing.conf"), {"records"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(LinesOf(result.err).size(), 1U) << result.err;
    EXPECT_THAT(result.out, HasSubstr("210"));
}

}  // namespace
