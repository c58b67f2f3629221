// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"
#include "TYRecordImage.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

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
    EXPECT_EQ(rows[0].at("service_id"), "org.example.player");
    EXPECT_EQ(rows[0].at("title"), "The Long Way Home");
    EXPECT_EQ(Run("").code, 0);
    EXPECT_EQ(Run("").out, "");
}

TEST_F(Decode, ReadsAFile) {
    m_Folder.Write("images", Image({0, TY_EVENT_SEEK, 431000, 1500000}));
    const Result result = RunProgram({TALLYRA_COMMAND, "decode", File("images")});
    EXPECT_EQ(result.code, 0);
    EXPECT_THAT(result.out, HasSubstr("SEEK"));
    EXPECT_THAT(result.out, HasSubstr("1500000"));
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

TEST_F(Decode, CutsTextsAtTheirFields) {
    const auto row = RunForJson(std::string(4800, 'x')).at(0);
    EXPECT_EQ(row.at("playback_id"), std::string(25, 'x'));
    EXPECT_EQ(row.at("service_version"), std::string(12, 'x'));
    EXPECT_EQ(row.at("service_id"), std::string(50, 'x'));
    EXPECT_EQ(row.at("custom_info"), std::string(4096, 'x'));
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
              "tallyra: not writing raw images to a terminal\r\n");
}

}  // namespace
