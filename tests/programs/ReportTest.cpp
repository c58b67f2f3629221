// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ReportData.h"
#include "ReportFixture.h"

#include <sys/stat.h>

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::int64_t kHourNs = 3600 * kSecond;

class Report : public CReportTest {};

TEST_F(Report, IsOneFileThatOnlyItsOwnerReads) {
    Store({}, WholePlayback());
    const std::string file = WriteReport();
    struct stat found {};
    ASSERT_EQ(stat(file.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777U, 0600U);
    const std::string page = ReadFile(file);
    EXPECT_THAT(page, StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(page, testing::EndsWith("</html>\n"));
    EXPECT_LT(page.size(), 700'000U);
    EXPECT_EQ(Run({"report", "-o", "-"}).out.size(), page.size());
}

TEST_F(Report, TellsTheFiguresOfThePlaybacks) {
    Store({}, WholePlayback());
    const json data = ReportData();
    EXPECT_EQ(data["all"]["playbacks"], 1);
    EXPECT_EQ(data["all"]["startup_ms"]["p50"], 1480);
    EXPECT_EQ(data["all"]["stalls"], 2);
    EXPECT_EQ(data["all"]["stalled_ms"], 2500 + 1250);
    EXPECT_EQ(data["startup"], json::parse(R"([{"from": 1259, "to": 1585, "n": 1}])"));
    EXPECT_EQ(data["application"]["groups"][0]["name"], "org.example.player");
    EXPECT_EQ(data["network"]["groups"][0]["name"], "wifi");
    EXPECT_EQ(data["signal"]["groups"][0]["name"], "-70 to -61 dBm");
    EXPECT_EQ(data["trend"]["buckets"][0]["time"], 1795233600'000);
    EXPECT_EQ(data["first"], "2026-11-21T04:09:50.000Z");
}

TEST_F(Report, DrawsTheWorstPlaybacksFromPhasesAndEvents) {
    Store({}, WholePlayback());
    const json worst = ReportData()["worst"];
    ASSERT_EQ(worst.size(), 1U);
    EXPECT_EQ(worst[0]["title"], "The Long Way Home");
    EXPECT_EQ(worst[0]["end"], "stopped");
    EXPECT_EQ(worst[0]["phases"][0], json::parse(R"(["start-up", 0, 1480])"));
    EXPECT_EQ(worst[0]["phases"][2], json::parse(R"(["stalled", 61600, 64100])"));
    EXPECT_EQ(worst[0]["events"][0], json::parse(R"(["pause", 215000, "PAUSE"])"));
    EXPECT_EQ(worst[0]["events"].back(), json::parse(R"(["stop", 331000, "STOP"])"));
}

TEST_F(Report, KeepsTheTwentyWorstPlaybacksInOrder) {
    for (int i = 0; i < 25; ++i) {
        const int startUp = 1000 + i * 7 % 25 * 100;
        Store({.playback = "p" + std::to_string(i)},
              {{0, TY_EVENT_START}, {startUp, TY_EVENT_RENDER_START}, {9000, TY_EVENT_STOP}});
    }
    Store({.playback = "failed"},
          {{0, TY_EVENT_START}, {10, kPlayerError}, {20, TY_EVENT_STOP, 0, TY_STOP_FATAL_ERROR}});
    const json worst = ReportData()["worst"];
    ASSERT_EQ(worst.size(), 20U);
    EXPECT_EQ(worst[0]["playback"], "failed");
    const std::vector<int> waits = Each<int>(worst, "waited_ms");
    EXPECT_EQ(waits[1], 3400);
    EXPECT_TRUE(std::is_sorted(waits.begin() + 1, waits.end(), std::greater<>()));
    EXPECT_EQ(waits.back(), 1600);
}

TEST_F(Report, CountsErrorsByCode) {
    for (const std::string playback : {"a", "b"}) {
        Store({.playback = playback}, {{0, TY_EVENT_START},
                                       {10, kPlayerError},
                                       {20, kPlayerError},
                                       {30, 230},
                                       {40, TY_EVENT_STOP, 0, TY_STOP_FATAL_ERROR}});
    }
    const json errors = ReportData()["errors"];
    EXPECT_THAT(Each<int>(errors, "code"), ElementsAre(230, kPlayerError));
    EXPECT_THAT(Each<int>(errors, "records"), ElementsAre(2, 4));
    EXPECT_THAT(Each<int>(errors, "playbacks"), ElementsAre(2, 2));
    EXPECT_THAT(Each<int>(errors, "fatal"), ElementsAre(2, 0));
    EXPECT_EQ(errors[0]["examples"], json({"a", "b"}));
}

// Each playback failed because of 210; the library's remark came later.
TEST_F(Report, CallsNoRemarkOfTheLibraryFatal) {
    for (const int remark : {TY_ERROR_URL_CHANGED, TY_ERROR_DUPLICATED_START}) {
        Store({.playback = std::to_string(remark)},
              {{0, TY_EVENT_START}, {1, 210}, {2, remark}, {3, TY_EVENT_STOP}});
    }
    Store({.playback = "told"}, {{0, TY_EVENT_START},
                                 {1, TY_ERROR_URL_CHANGED},
                                 {2, TY_EVENT_STOP, 0, TY_STOP_FATAL_ERROR}});
    const json data = ReportData();
    EXPECT_EQ(data["all"]["start_failures"]["n"], 3);
    EXPECT_THAT(Each<int>(data["errors"], "code"), ElementsAre(210));
    EXPECT_THAT(Each<int>(data["errors"], "fatal"), ElementsAre(2));
}

TEST_F(Report, SaysThatNoPlaybackMatches) {
    Store({}, WholePlayback());
    EXPECT_EQ(Run({"report", "-o", File("a.html")}).err, "");
    const Result none = Run({"report", "--since", "now", "-o", File("a.html")});
    EXPECT_EQ(none.code, 0);
    EXPECT_EQ(none.err, "tallyra: no playbacks match\n");
}

TEST_F(Report, HasNoLengthOfAStallThatBeginsWithTheLastRecord) {
    Store({},
          {{0, TY_EVENT_START}, {1000, TY_EVENT_RENDER_START}, {2000, TY_EVENT_BUFFERING_START}});
    const json data = ReportData();
    EXPECT_EQ(data["all"]["stalls"], 1);
    EXPECT_EQ(data["stall"], json::array());
}

TEST(ReportScope, BeginsWithAClockThatWasNeverSet) {
    CReportData data(kStartSecond * kSecond);
    TYStoredPlayback playback;
    for (const std::int64_t begin : {std::int64_t{0}, kStartSecond * kSecond}) {
        playback.begin = begin;
        data.Add({playback, {}, {}, {}});
    }
    EXPECT_EQ(data.Get()["first"], "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(data.Get()["last"], "2026-11-21T04:09:50.000Z");
}

TEST_F(Report, IsAboutTheSelectedPlaybacks) {
    Store({}, WholePlayback());
    Store({"other", "p2", "t", "u", ":1.8"}, {{0, TY_EVENT_START}});
    EXPECT_EQ(ReportData()["all"]["playbacks"], 2);
    EXPECT_EQ(ReportData({"--application", "other"})["all"]["playbacks"], 1);
    EXPECT_EQ(ReportData({"--since", "2026-11-21T04:09:50Z"})["all"]["playbacks"], 2);
    EXPECT_EQ(ReportData({"--since", "2026-11-21T04:09:51Z"})["all"]["playbacks"], 0);
    EXPECT_EQ(ReportData({"--until", "2026-11-21T04:09:50Z"})["all"]["playbacks"], 0);
}

TEST_F(Report, TellsWhatWasLost) {
    CTYLosses losses;
    losses.Count(TYLossReason::RATE, "a", 3);
    losses.Count(TYLossReason::AGE, "", 50, 2);
    {
        CTYStore store(Db());
        WriteLosses(store.Database(), losses, std::int64_t{kStartSecond} * kSecond);
    }
    const json all = ReportData()["losses"];
    EXPECT_THAT(Each<std::string>(all, "reason"), ElementsAre("age", "rate"));
    EXPECT_THAT(Each<int>(all, "records"), ElementsAre(50, 3));
    EXPECT_THAT(Each<std::string>(ReportData({"--application", "a"})["losses"], "reason"),
                ElementsAre("rate"));
    EXPECT_THAT(ReportData({"--until", "2026-11-21"})["losses"], testing::IsEmpty());
}

TEST_F(Report, HoldsTextsOfPlayersAsHarmlessData) {
    StoreHostileTexts();
    const std::string page = ReadFile(WriteReport());
    const std::string data = DataText(page);
    EXPECT_TRUE(std::ranges::all_of(data, [](char c) { return c >= 0x20 && c < 0x7f; }));
    EXPECT_EQ(data.find_first_of("<>&"), std::string::npos);
    const json worst = json::parse(data)["worst"];
    EXPECT_EQ(worst[0]["title"], kHostileTitle);
    EXPECT_EQ(worst[0]["application"], kHostileApplication);
    EXPECT_EQ(worst[0]["playback"], kHostilePlayback);
    EXPECT_THAT(worst[1]["title"].get<std::string>(), StartsWith("?gpj?."));
    EXPECT_THAT(page, HasSubstr("<meta http-equiv=\"Content-Security-Policy\" "
                                "content=\"default-src 'none'; script-src 'sha256-"));
    EXPECT_THAT(page, Not(HasSubstr("unsafe")));
}

TEST_F(Report, LeavesTheOldFileIfItFails) {
    m_Folder.Write("old", "old");
    const Result missing =
        RunProgram({TALLYRA_COMMAND, "report", "--db", File("none.db"), "-o", File("old")});
    EXPECT_EQ(missing.code, 1);
    EXPECT_THAT(missing.err, HasSubstr("none.db"));
    EXPECT_EQ(ReadFile(File("old")), "old");
    Store({}, WholePlayback());
    const Result unwritable = Run({"report", "-o", File("none/report.html")});
    EXPECT_EQ(unwritable.code, 1);
    EXPECT_THAT(unwritable.err, HasSubstr("cannot write"));
    EXPECT_EQ(Run({"report"}).code, 2);
}

TEST(ReportHistogram, CountsInClassesThatGrowByAFactor) {
    EXPECT_EQ(HistogramOf(std::vector<std::int64_t>()), nlohmann::ordered_json::array());
    const json histogram = HistogramOf(std::vector<std::int64_t>{-5, 0, 10, 12, 13, 20});
    EXPECT_EQ(histogram, json::parse(R"([{"from": 10, "to": 13, "n": 4},
        {"from": 13, "to": 16, "n": 1}, {"from": 16, "to": 20, "n": 0}, {"from": 20, "to": 25, "n": 1}])"));
}

class ReportTrend : public testing::Test {
  protected:
    void AddAt(std::int64_t begin) {
        TYStoredPlayback playback;
        playback.begin = begin;
        m_Trend.Add({playback, {}, {}, {}});
    }

    static constexpr std::int64_t kNow = std::int64_t{kStartSecond} * kSecond;
    CReportTrend m_Trend{kNow};
};

TEST_F(ReportTrend, HasABucketForEachHourOfAShortTime) {
    AddAt(kNow);
    AddAt(kNow - 71 * kHourNs);
    EXPECT_EQ(m_Trend.Get()["unit_ms"], 3'600'000);
    EXPECT_EQ(m_Trend.Get()["buckets"].size(), 2U);
    AddAt(kNow - 72 * kHourNs);
    EXPECT_EQ(m_Trend.Get()["unit_ms"], 86'400'000);
    EXPECT_EQ(m_Trend.Get()["buckets"].size(), 2U);
}

TEST_F(ReportTrend, LeavesOutWhatWrongClocksSay) {
    AddAt(kNow);
    AddAt(0);
    AddAt(-5 * kHourNs);
    AddAt(kNow + 24 * kHourNs);
    const ReportJson trend = m_Trend.Get();
    EXPECT_EQ(trend["outside"], 3);
    EXPECT_EQ(trend["buckets"].size(), 1U);
    EXPECT_EQ(trend["unit_ms"], 3'600'000);
}

}  // namespace
