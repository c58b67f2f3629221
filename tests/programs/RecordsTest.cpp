// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"
#include "TYRecordImage.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

class Records : public CCommandTest {
  protected:
    // Four records, ten seconds apart in their arrival.
    void SetUp() override {
        Store({"org.example.tv", "100", "News", "https://a/1", ":1.1"},
              {{0, TY_EVENT_START}, {10, TY_EVENT_BUFFERING_START, 7}}, 100 * kSecond);
        Store({"org.example.radio", "200", "Jazz", "https://b/2", ":1.2"}, {{20, TY_EVENT_START}},
              110 * kSecond);
        Store({"org.example.tv", "300", "Sport", "https://a/3", ":1.1"},
              {{30, TY_ERROR_PLAYBACK_TIME_JUMP, 5, 6}}, 120 * kSecond);
    }
};

const struct {
    std::vector<std::string> filter;
    std::vector<int> ids;
} kFilters[] = {
    {{}, {1, 2, 3, 4}},
    {{"--application", "org.example.tv"}, {1, 2, 4}},
    {{"--application", "org.example"}, {}},
    {{"--playback", "200"}, {3}},
    {{"--code", "1"}, {1, 3}},
    {{"--code", "buffering_start"}, {2}},
    {{"--code", "PLAYBACK_TIME_JUMP"}, {4}},
    {{"--since", "@110"}, {3, 4}},
    {{"--until", "@110"}, {1, 2}},
    {{"--since", "@110", "--until", "@120"}, {3}},
    {{"--since", "1970-01-01T00:02:00Z"}, {4}},
    {{"--since", "1h"}, {}},
    {{"--limit", "2"}, {3, 4}},
    {{"--limit", "0"}, {}},
    {{"--limit", "-1"}, {1, 2, 3, 4}},
    {{"--application", "org.example.tv", "--playback", "100", "--code", "4", "--since", "@100",
      "--until", "@101", "--limit", "5"},
     {2}},
};

TEST_F(Records, AreSelectedByFilters) {
    for (const auto& one : kFilters) {
        SCOPED_TRACE(testing::PrintToString(one.filter));
        std::vector<std::string> command = one.filter;
        command.insert(command.begin(), "records");
        EXPECT_EQ(Each<int>(RunForJson(command), "id"), one.ids);
    }
}

TEST_F(Records, HaveEveryFieldInJson) {
    TYMediaData record = RecordOf({.playback = "300"}, {30, TY_ERROR_PLAYBACK_TIME_JUMP, 5, 6});
    record.content.drmType = 3;
    record.content.contentType = 4;
    CopyText(record.content.channelID, "channel");
    CopyText(record.content.genre, "genre");
    CopyText(record.content.customInfo, "custom");
    StoreBatch({record}, {"https://a/3"}, 130 * kSecond, ":1.3");
    const auto expected = nlohmann::json::parse(R"({
        "id": 5, "arrival": "1970-01-01T00:02:10.000Z", "time": "2026-11-21T04:09:50.030Z",
        "sender": ":1.3", "uid": 1000, "pid": 4711, "application": "org.example.player",
        "version": "2.4.1", "playback": "300", "player": "native", "player_id": 1,
        "network": "wifi", "network_type": 2, "event": "PLAYBACK_TIME_JUMP", "kind": "remark",
        "code": 204, "param1": 5, "param2": 6, "title": "The Long Way Home", "url": "https://a/3",
        "url_cut": 0, "duration_ms": 6912000, "drm": "clearkey", "drm_type": 3,
        "content": "advertisement", "content_type": 4, "channel": "channel", "genre": "genre",
        "custom_info": "custom", "what": "at 0:00.005, was at 0:00.006"})");
    EXPECT_EQ(RunForJson({"records", "--since", "@130"}).at(0), expected);
}

TEST_F(Records, HaveATable) {
    const auto lines = LinesOf(Run({"records", "--playback", "300"}).out);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[0],
              "id  time                       uid  application     playback  event"
              "               kind    what                          network  url");
    EXPECT_EQ(lines[1],
              " 4  2026-11-21T04:09:50.030Z  1000  org.example.tv  300       PLAYBACK_TIME_JUMP"
              "  remark  at 0:00.005, was at 0:00.006  wifi     https://a/3");
}

TEST_F(Records, HaveShortLinesWhateverTheirUrlHides) {
    Script script{.title = "", .url = "http://h/"};
    for (int i = 0; i < 100'000; ++i) {
        script.url += "\u0301";
    }
    Store(script, {{0, TY_EVENT_START}});
    for (const char* pCommand : {"records", "playbacks"}) {
        const std::string out = Run({pCommand}).out;
        EXPECT_LT(out.size(), 3000U);
        EXPECT_THAT(out, HasSubstr("http://h/"));
    }
}

TEST_F(Records, KeepTheirTextsInCsv) {
    const std::string url = "https://c/a,b\"c\r\nd\ne";
    Store({"org.example.csv", "400", " a, \"b\" ", url, ":1.3"}, {{0, TY_EVENT_START}});
    const Result result = Run({"records", "--application", "org.example.csv", "--format", "csv"});
    EXPECT_THAT(result.out, HasSubstr(",\"https://c/a,b\"\"c\r\nd\ne\","));
    const auto rows = ParseCsv(result.out);
    ASSERT_THAT(rows, SizeIs(2));
    EXPECT_EQ(CsvCell(rows, "url"), url);
    EXPECT_EQ(CsvCell(rows, "title"), " a, \"b\" ");
}

TEST_F(Records, HaveNullForAMissingUrlAndUser) {
    TYBatch batch = MakeBatch({MakeRecord(TY_EVENT_START)}, 140 * kSecond);
    batch.sender = {"8f1b", ":1.9", std::nullopt, std::nullopt};
    batch.urls = {std::nullopt};
    CTYStore(Db()).Add(batch);
    const auto row = RunForJson({"records", "--since", "@140"}).at(0);
    EXPECT_TRUE(row.at("url").is_null());
    EXPECT_TRUE(row.at("uid").is_null());
}

TEST_F(Records, OfAnEmptyStoreAreAnEmptyArray) {
    Execute("DELETE FROM entries");
    EXPECT_EQ(Run({"records", "--format", "json"}).out, "[]\n");
    EXPECT_THAT(LinesOf(Run({"records", "--format", "csv"}).out), SizeIs(1));
    const Result table = Run({"records"});
    EXPECT_EQ(table.code, 0);
    EXPECT_EQ(table.out, "");
    EXPECT_EQ(table.err, "tallyra: no records match\n");
    EXPECT_EQ(Run({"playbacks", "--title", "x"}).err, "tallyra: no playbacks match\n");
}

class Decode : public CCommandTest {
  protected:
    static std::string Image(const Step& step) { return std::string(ImageOf(RecordOf({}, step))); }
    static Result Run(const std::string& images, std::vector<std::string> more = {}) {
        more.insert(more.begin(), {TALLYRA_COMMAND, "decode"});
        return RunProgram(more, images);
    }
    static nlohmann::json RunForJson(const std::string& images) {
        const Result result = Run(images, {"--format", "json"});
        EXPECT_EQ(result.code, 0) << result.err;
        return nlohmann::json::parse(result.out);
    }
};

TEST_F(Decode, ReadsStandardInput) {
    const auto rows =
        RunForJson(Image({0, TY_EVENT_START}) + Image({1480, TY_EVENT_START_UP_TIME, 1480}));
    EXPECT_THAT(Each<std::string>(rows, "event"), ElementsAre("START", "START_UP_TIME"));
    EXPECT_THAT(Each<int>(rows, "param1"), ElementsAre(0, 1480));
    EXPECT_THAT(Each<std::string>(rows, "time"),
                ElementsAre("2026-11-21T04:09:50.000Z", "2026-11-21T04:09:51.480Z"));
    EXPECT_EQ(rows[0].at("network"), "wifi");
    EXPECT_EQ(rows[0].at("application"), "org.example.player");
    EXPECT_EQ(rows[0].at("title"), "The Long Way Home");
    EXPECT_EQ(Run("").code, 0);
    EXPECT_EQ(Run("").out, "");
}

TEST_F(Decode, PrintsCompleteRecordsAndReportsARest) {
    const std::string image = Image({0, TY_EVENT_START});
    const std::pair<std::string, std::size_t> inputs[] = {{image.substr(0, 4799), 0},
                                                          {image + "abc", 1}};
    for (const auto& [input, rows] : inputs) {
        const Result result = Run(input, {"--format", "json"});
        EXPECT_EQ(result.code, 1);
        EXPECT_EQ(nlohmann::json::parse(result.out).size(), rows);
        EXPECT_EQ(result.err, "tallyra: incomplete record at the end: " +
                                  std::to_string(input.size() % 4800) + " of 4800 bytes\n");
    }
}

TEST_F(Decode, ReportsAFileThatCannotBeRead) {
    for (const std::string& path : {File("missing"), m_Folder.Path().string()}) {
        const Result result = RunProgram({TALLYRA_COMMAND, "decode", path});
        EXPECT_EQ(result.code, 1) << path;
        EXPECT_THAT(result.err, testing::EndsWith("cannot read " + path + "\n"));
    }
}

TEST_F(Decode, ReadsTheImagesThatRecordsWrites) {
    Store({}, WholePlayback());
    std::string images;
    for (const Step& step : WholePlayback()) {
        images += Image(step);
    }
    const Result raw = CCommandTest::Run({"records", "--raw", "--limit", "-1"});
    EXPECT_EQ(raw.out, images);
    EXPECT_EQ(LinesOf(Run(raw.out).out).size(), WholePlayback().size() + 1);
    EXPECT_EQ(RunOnTerminal(Command({"records", "--raw"})),
              "tallyra: not writing raw images to a terminal\n");
}

}  // namespace
