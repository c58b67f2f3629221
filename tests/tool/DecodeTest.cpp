// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"
#include "TYRecordImage.h"

#include <gmock/gmock.h>

#include <cstring>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

class CDecodeTest : public CStoreTest {
  protected:
    static std::string Image(const Step& step) { return std::string(ImageOf(RecordOf({}, step))); }
    static Result Decode(const std::string& images, std::vector<std::string> more = {}) {
        more.insert(more.begin(), {TALLYRA_COMMAND, "decode"});
        return RunProgram(more, images);
    }
};

TEST_F(CDecodeTest, ReadsImagesFromStandardInput) {
    const Result result = Decode(Image({0, 1}) + Image({1480, 21, 1480}), {"--format", "json"});

    ASSERT_EQ(result.code, 0) << result.err;
    const auto rows = nlohmann::json::parse(result.out);
    EXPECT_THAT(Each<std::string>(rows, "event"), ElementsAre("START", "START_UP_TIME"));
    EXPECT_THAT(Each<int>(rows, "param1"), ElementsAre(0, 1480));
    EXPECT_THAT(Each<std::string>(rows, "time"),
                ElementsAre("2026-11-21T04:09:50.000Z", "2026-11-21T04:09:51.480Z"));
    EXPECT_EQ(rows[0].at("service_id"), "org.example.player");
    EXPECT_EQ(rows[0].at("title"), "The Long Way Home");
}

TEST_F(CDecodeTest, ReadsThemFromAFileToo) {
    m_Folder.Write("images", Image({0, 9, 431000, 1500000}));
    const Result result = RunProgram({TALLYRA_COMMAND, "decode", File("images")});

    EXPECT_EQ(result.code, 0);
    EXPECT_THAT(result.out, HasSubstr("SEEK"));
    EXPECT_THAT(result.out, HasSubstr("1500000"));
}

TEST_F(CDecodeTest, RefusesAnImageThatIsCutOff) {
    const Result result = Decode(Image({0, 1}).substr(0, 4799), {"--format", "json"});

    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out, "[]\n");
    EXPECT_EQ(result.err, "tallyra: incomplete record at the end: 4799 of 4800 bytes\n");
}

TEST_F(CDecodeTest, PrintsWhatIsWholeInFrontOfTrailingBytes) {
    const Result result = Decode(Image({0, 1}) + "abc", {"--format", "json"});

    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(nlohmann::json::parse(result.out), SizeIs(1));
    EXPECT_EQ(result.err, "tallyra: incomplete record at the end: 3 of 4800 bytes\n");
}

TEST_F(CDecodeTest, OfNothingIsNoRecord) {
    EXPECT_EQ(Decode("").code, 0);
    EXPECT_EQ(Decode("").out, "");
}

TEST_F(CDecodeTest, SaysThatAFileCannotBeRead) {
    for (const std::string& path : {File("missing"), m_Folder.Path().string()}) {
        const Result result = RunProgram({TALLYRA_COMMAND, "decode", path});
        EXPECT_EQ(result.code, 1) << path;
        EXPECT_THAT(result.err, testing::EndsWith("cannot read " + path + "\n"));
    }
}

TEST_F(CDecodeTest, BoundsTextsByTheirFields) {
    TYMediaData record{};
    std::memset(&record, 'x', sizeof(record));
    const Result result = Decode(std::string(ImageOf(record)), {"--format", "json"});

    ASSERT_EQ(result.code, 0);
    const auto row = nlohmann::json::parse(result.out).at(0);
    EXPECT_EQ(row.at("playback_id").get<std::string>(), std::string(25, 'x'));
    EXPECT_EQ(row.at("service_version").get<std::string>(), std::string(12, 'x'));
    EXPECT_EQ(row.at("service_id").get<std::string>(), std::string(50, 'x'));
    EXPECT_EQ(row.at("custom_info").get<std::string>(), std::string(4096, 'x'));
}

TEST_F(CDecodeTest, ReadsTheImagesThatRecordsPrints) {
    Store({}, WholePlayback(), NowNs());
    std::string images;
    for (const Step& step : WholePlayback()) {
        images += Image(step);
    }
    const Result raw = Run({"records", "--raw", "--limit", "-1"});

    EXPECT_EQ(raw.out, images);
    EXPECT_EQ(LinesOf(Decode(raw.out).out).size(), WholePlayback().size() + 1);
}

TEST_F(CDecodeTest, KeepsImagesFromTheScreen) {
    Store({}, WholePlayback(), NowNs());
    EXPECT_EQ(RunOnTerminal(Command({"records", "--raw"})),
              "tallyra: not writing raw images to a terminal\r\n");
}

}  // namespace
