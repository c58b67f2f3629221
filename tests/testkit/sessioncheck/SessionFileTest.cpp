// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Program.h"

using testing::HasSubstr;

namespace {

/// @return a line of a record
std::string Line(const std::string& time, int code, const std::string& event,
                 const std::string& url = "a.mp4") {
    return R"({"time":"2026-01-31T10:00:)" + time + R"(Z","application":"org.example.tv",)" +
           R"("playback":"1","event":")" + event + R"(","code":)" + std::to_string(code) +
           R"(,"param1":-1,"param2":0,"url":")" + url + R"(","duration_ms":0,"content_type":0})" +
           "\n";
}

const std::string kStart = Line("01.000", 1, "START");
const std::string kStop = Line("02.000", 2, "STOP");

Result CheckText(const std::string& text) {
    return RunProgram({CHECK_SESSION, "-"}, text);
}

TEST(SessionFile, StandardInputIsCheckedWithAndWithoutAnEnd) {
    for (const std::string end : {"", "{\"end\":true,\"rows\":2}\n"}) {
        const Result result = CheckText(kStart + kStop + end);
        EXPECT_EQ(result.code, 0);
        EXPECT_EQ(result.out, "1 playback, 2 records, 0 complaints\n");
    }
}

TEST(SessionFile, FileThatCannotBeCheckedIsRefusedWithTheNumberOfTheLine) {
    std::string wrongTime = kStop;
    wrongTime.replace(wrongTime.find("2026"), 4, "then");
    const std::string noCode = R"({"time":"2026-01-31T10:00:03Z","playback":"1"})";
    const struct {
        std::string text;
        const char* error;
    } cases[] = {
        {kStart + "{\n", "standard input:2: not a JSON object"},
        {kStart + "[]\n", "standard input:2: not a JSON object"},
        {kStart + kStop.substr(0, 40), "standard input:2: not a JSON object"},
        {kStart + noCode, "standard input:2: \"code\" is missing; a record comes from 'tallyra"},
        {kStart + Line("02.000", 256, "STOP"), "standard input:2: \"code\" is not an integer"},
        {kStart + wrongTime, "standard input:2: \"then-01-31T10:00:02.000Z\" is not a time"},
        {kStart + "{\"end\":true,\"rows\":2}\n", "standard input:2: the file ends with another"},
        {"", "standard input: no record"},
        {"{\"end\":true,\"rows\":0}\n", "standard input: no record"},
    };
    for (const auto& [text, error] : cases) {
        const Result result = CheckText(text);
        EXPECT_EQ(result.code, 2) << text;
        EXPECT_EQ(result.out, "") << text;
        EXPECT_THAT(result.err, HasSubstr(std::string("tallyra-check-session: ") + error));
    }
}

TEST(SessionFile, MissingFileAndWrongArgumentsAreRefused) {
    EXPECT_EQ(RunProgram({CHECK_SESSION, "/no/such/file"}).code, 2);
    EXPECT_EQ(RunProgram({CHECK_SESSION}).code, 2);
    EXPECT_EQ(RunProgram({CHECK_SESSION, "--unknown", "-"}).code, 2);
}

// The library with assertions ends the player instead.
TEST(SessionFile, MistakesThatOnlyALibraryWithoutAssertionsRecordsAreFound) {
    EXPECT_EQ(CheckText(Line("01.000", 1, "START", "") + Line("02.000", 2, "STOP", "")).out,
              "-:1: no URL: call SetContentInfo with a URL before START\n"
              "1 playback, 2 records, 1 complaint\n");
    EXPECT_THAT(CheckText(kStart + Line("02.000", 2, "STOP", "b.mp4")).out,
                HasSubstr("-:1,2: the URL changes during the playback: send STOP before the next "
                          "content, and neither add nor remove a title\n"));
}

TEST(SessionFile, NoTextOfAPlayerCanReorderALine) {
    EXPECT_THAT(CheckText(kStart + kStop + Line("03.000", 3, "PAU\u202eSE\u0085")).out,
                HasSubstr("-:2,3: PAU?SE? after STOP"));
    EXPECT_THAT(CheckText("{\"time\":\"\u202e\"}").err, HasSubstr(":1: \"?\" is not a time"));
}

TEST(SessionFile, RecordsThatWereLostAreComplainedAbout) {
    EXPECT_THAT(CheckText(kStop).out, HasSubstr("-:1: the playback begins with STOP instead of "
                                                "START: send START first, and check whole "
                                                "playbacks\n"));
    EXPECT_THAT(CheckText(kStart + kStop + Line("03.000", 3, "PAUSE")).out,
                HasSubstr("-:2,3: PAUSE after STOP: STOP is the last call of a playback\n"));
}

}  // namespace
