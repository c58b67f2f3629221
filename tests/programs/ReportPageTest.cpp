// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ReportFixture.h"
#include "Sessions.h"

// Reports as a browser shows them: report/open_report.py drives a headless one.

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class ReportPage : public CReportTest {
  protected:
    /// Stores the first records of generated playbacks.
    void StoreRecords(std::size_t count) {
        CDice dice(5);
        for (int number = 0; count > 0; ++number) {
            const std::int64_t begin = (kStartSecond + std::int64_t{number} * 90'000) * 1000;
            Session session = MakeSession(dice, number, begin);
            session.records.resize(std::min(session.records.size(), count));
            count -= session.records.size();
            StoreBatch(session.records, {session.records.size(), session.url});
        }
    }

    json Open(const std::string& file, const std::vector<std::string>& options = {}) const {
        std::vector<std::string> command = {"python3", OPEN_REPORT, file};
        command.insert(command.end(), options.begin(), options.end());
        const Result result = RunProgram(command);
        EXPECT_EQ(result.code, 0) << result.err;
        return json::parse(result.out);
    }

    static void ExpectQuiet(const json& seen) {
        EXPECT_THAT(seen["errors"], IsEmpty()) << seen["errors"];
        EXPECT_THAT(seen["requests"], SizeIs(1)) << seen["requests"];
        EXPECT_EQ(seen["wide"], 0) << "the page is wider than the window";
    }
};

void ExpectFigure(const json& figure) {
    SCOPED_TRACE(figure.dump(1));
    if (figure["nothing"]) {
        EXPECT_EQ(figure["charts"], 0);
        return;
    }
    EXPECT_EQ(figure["charts"], 1);
    EXPECT_GT(figure["marks"], 0);
    EXPECT_GT(figure["rows"], 0);
    EXPECT_THAT(figure["label"].get<std::string>(), testing::Not(IsEmpty()));
    EXPECT_THAT(figure["tip"].get<std::string>(), testing::Not(IsEmpty()));
}

const struct {
    std::size_t records;
    std::size_t charts;
} kStores[] = {{1, 4}, {100, 9}, {4000, 9}};

TEST_F(ReportPage, DrawsChartsThatAnswer) {
    std::size_t stored = 0;
    for (const auto& [records, charts] : kStores) {
        SCOPED_TRACE(records);
        StoreRecords(records - std::exchange(stored, records));
        const json seen = Open(WriteReport());
        ExpectQuiet(seen);
        EXPECT_THAT(seen["figures"], SizeIs(10));
        std::size_t drawn = 0;
        for (const json& figure : seen["figures"]) {
            ExpectFigure(figure);
            drawn += figure["charts"].get<std::size_t>();
        }
        EXPECT_EQ(drawn, charts);
    }
}

TEST_F(ReportPage, SaysThatAStoreIsEmpty) {
    { const CTYStore store(Db()); }
    const json seen = Open(WriteReport());
    ExpectQuiet(seen);
    EXPECT_THAT(seen["text"].get<std::string>(), HasSubstr("The store holds none yet."));
    const json selected = Open(WriteReport({"--application", "none"}));
    EXPECT_THAT(selected["text"].get<std::string>(), HasSubstr("None in the store fits"));
}

TEST_F(ReportPage, ShowsHostileTextsAsTexts) {
    StoreHostileTexts();
    const json seen = Open(WriteReport());
    ExpectQuiet(seen);
    EXPECT_EQ(seen["title"], "Playback report");
    EXPECT_EQ(seen["scripts"], 4);
    EXPECT_EQ(seen["images"], 0);
    const std::string text = seen["text"].get<std::string>();
    EXPECT_THAT(text, HasSubstr(kHostileTitle));
    EXPECT_THAT(text, HasSubstr(kHostileApplication));
    EXPECT_THAT(text, HasSubstr(kHostilePlayback));
}

TEST_F(ReportPage, RefusesWhatAnIntruderWouldTry) {
    Store({}, WholePlayback());
    EXPECT_THAT(Open(WriteReport(), {"--probe"})["worked"], IsEmpty());
}

TEST_F(ReportPage, FitsTheWindowAndTheColourScheme) {
    StoreRecords(200);
    const std::string file = WriteReport();
    const json light = Open(file, {"--width", "400"});
    const json dark = Open(file, {"--scheme", "dark"});
    ExpectQuiet(light);
    ExpectQuiet(dark);
    EXPECT_EQ(light["background"], "rgb(246, 247, 249)");
    EXPECT_EQ(dark["background"], "rgb(18, 22, 27)");
    EXPECT_NE(light["bar"], dark["bar"]);
}

}  // namespace
