// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"
#include "TableTest.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

// Compares member by member. Numbers may differ by rounding.
void ExpectSame(const json& actual, const json& expected) {
    const json flat = actual.flatten();
    const json wanted = expected.flatten();
    for (const auto& [name, value] : wanted.items()) {
        ASSERT_TRUE(flat.contains(name)) << name;
        if (value.is_number_float()) {
            EXPECT_NEAR(flat.at(name).get<double>(), value.get<double>(), 1e-9) << name;
        } else {
            EXPECT_EQ(flat.at(name), value) << name;
        }
    }
    EXPECT_THAT(flat, SizeIs(wanted.size())) << actual;
}

// Of each way to end, of each cause of a stall, one that plays, two that are lost, and one without
// START. The sums, by hand:
//   start-up 1000, 2000, 3000, 4000, 5000; connection stalls 2000 and 7000, both of others' one
//   each; seek 2000 with a stall of 1500; switch stall of 1000; playing 120 + 30 + 10 + 180 + 20 s.
class Kpi : public CCommandTest {
  protected:
    void Play(const char* pPlayback, const std::vector<Step>& steps) {
        Store(Named(pPlayback), steps);
    }
    void Lose(const char* pPlayback, const std::vector<Step>& steps) {
        Store(Named(pPlayback), steps, WallClockNow() - 3600 * kSecond);
    }
    static Script Named(const char* pPlayback) {
        Script script;
        script.playback = pPlayback;
        return script;
    }

    void PlayAll() {
        Play("completed", {{0, TY_EVENT_START},
                           {1000, TY_EVENT_RENDER_START},
                           {1000, TY_EVENT_RENDITION, 3000},
                           {1000, TY_EVENT_PLAYBACK_TIME, 0},
                           {61000, TY_EVENT_BUFFERING_START, 60000, -61},
                           {63000, TY_EVENT_BUFFERING_END, 0, TY_STALL_CONNECTION},
                           {63000, TY_EVENT_RENDITION, 6000},
                           {93000, TY_EVENT_PAUSE, 90000},
                           {100000, TY_EVENT_RESUME},
                           {100000, TY_EVENT_PLAYBACK_TIME, 90000},
                           {130000, TY_EVENT_DROPPED_FRAMES, 5, 3000},
                           {130000, TY_EVENT_STOP, 120000, TY_STOP_END_OF_CONTENT}});
        Play("stopped", {{0, TY_EVENT_START},
                         {2000, TY_EVENT_RENDER_START},
                         {2000, TY_EVENT_PLAYBACK_TIME, 0},
                         {12000, TY_EVENT_SEEK, 10000, 600000},
                         {12500, TY_EVENT_BUFFERING_START, 10000},
                         {13000, TY_EVENT_SEEK_COMPLETE},
                         {14000, TY_EVENT_BUFFERING_END},
                         {14000, TY_EVENT_PLAYBACK_TIME, 600000},
                         {24000, TY_EVENT_BUFFERING_START, 610000},
                         {25000, TY_EVENT_BUFFERING_END, 0, TY_STALL_RENDITION_SWITCH},
                         {35000, TY_EVENT_STOP, 620000, TY_STOP_USER}});
        PlayBadly();
        PlayInPart();
    }
    void PlayBadly() {
        Play("start failure",
             {{0, TY_EVENT_START}, {500, kPlayerError}, {600, TY_EVENT_STOP, 0, 3}});
        Play("exit", {{0, TY_EVENT_START},
                      {100, TY_EVENT_BUFFERING_START},
                      {5000, TY_EVENT_STOP, 0, TY_STOP_USER}});
        Play("playback failure", {{0, TY_EVENT_START},
                                  {3000, TY_EVENT_RENDER_START},
                                  {3000, TY_EVENT_PLAYBACK_TIME, 0},
                                  {13000, TY_EVENT_BUFFERING_START, 10000},
                                  {18000, kPlayerError},
                                  {20000, TY_EVENT_STOP, 10000}});
    }
    void PlayInPart() {
        Lose("lost", {{0, TY_EVENT_START},
                      {4000, TY_EVENT_RENDER_START},
                      {4000, TY_EVENT_PLAYBACK_TIME, 0},
                      {184000, TY_EVENT_PLAYING_TIME, 180000, 180000}});
        Lose("lost at once", {{0, TY_EVENT_START}});
        Play("playing",
             {{0, TY_EVENT_START}, {5000, TY_EVENT_RENDER_START}, {5000, TY_EVENT_PLAYBACK_TIME}});
        Play("without start",
             {{0, TY_EVENT_PLAYBACK_TIME}, {20000, TY_EVENT_STOP, 20000, TY_STOP_USER}});
    }
};

TEST_F(Kpi, AreThoseOfAllPlaybacks) {
    PlayAll();
    const json groups = RunForJson({"kpi"});
    ASSERT_THAT(groups, SizeIs(1));
    ExpectSame(groups[0], json::parse(R"({"group": "all", "playbacks": 9, "started": 6,
        "start_failures": 1, "start_failures_rate": 0.125,
        "start_failures_rate_ci": [0.02241749145005667, 0.4708881822128535],
        "start_failures_rate_n": 8,
        "exits_before_start": 1, "exits_before_start_rate": 0.125,
        "exits_before_start_rate_ci": [0.02241749145005667, 0.4708881822128535],
        "exits_before_start_rate_n": 8,
        "playback_failures": 1, "playback_failures_rate": 0.16666666666666666,
        "playback_failures_rate_ci": [0.030053369748306635, 0.5635028221864702],
        "playback_failures_rate_n": 6,
        "lost": 2, "lost_rate": 0.2222222222222222,
        "lost_rate_ci": [0.06322510711784671, 0.5474110308930111], "lost_rate_n": 9,
        "startup_ms": {"n": 5, "p50": 3000, "p95": 5000, "p99": 5000},
        "stall_ms": {"n": 2, "p50": 2000, "p95": 7000, "p99": 7000},
        "seek_ms": {"n": 1, "p50": 2000, "p95": 2000, "p99": 2000},
        "stalls": 2, "stalled_ms": 9000, "seek_stalls": 1, "seek_stalled_ms": 1500,
        "switch_stalls": 1, "switch_stalled_ms": 1000, "playing_ms": 360000, "paused_ms": 7000,
        "stalled_ratio": 0.03095558546433378, "connection_stalled_ratio": 0.024390243902439025,
        "stalls_per_hour": 20.0, "stalls_per_playback": {"n": 6, "p50": 0, "p95": 1, "p99": 1},
        "watched_media_ms": 360000, "completed": 1, "completed_rate": 0.25,
        "completed_rate_ci": [0.04558726080970055, 0.6993581574175981], "completed_rate_n": 4,
        "average_kbps": 4500, "switches": 1, "frames_dropped": 5, "frames_rendered": 3000})"));
}

constexpr const char* kNothing = R"({"group": "all", "playbacks": 0, "started": 0,
    "start_failures": 0, "start_failures_rate": null, "start_failures_rate_ci": null,
    "start_failures_rate_n": 0, "exits_before_start": 0, "exits_before_start_rate": null,
    "exits_before_start_rate_ci": null, "exits_before_start_rate_n": 0, "playback_failures": 0,
    "playback_failures_rate": null, "playback_failures_rate_ci": null,
    "playback_failures_rate_n": 0, "lost": 0, "lost_rate": null, "lost_rate_ci": null,
    "lost_rate_n": 0, "startup_ms": {"n": 0, "p50": null, "p95": null, "p99": null},
    "stall_ms": {"n": 0, "p50": null, "p95": null, "p99": null},
    "seek_ms": {"n": 0, "p50": null, "p95": null, "p99": null}, "stalls": 0, "stalled_ms": 0,
    "seek_stalls": 0, "seek_stalled_ms": 0, "switch_stalls": 0, "switch_stalled_ms": 0,
    "playing_ms": 0, "paused_ms": 0, "stalled_ratio": null, "connection_stalled_ratio": null,
    "stalls_per_hour": null, "stalls_per_playback": {"n": 0, "p50": null, "p95": null, "p99": null},
    "watched_media_ms": null, "completed": null, "completed_rate": null, "completed_rate_ci": null,
    "completed_rate_n": 0, "average_kbps": null, "switches": null, "frames_dropped": null,
    "frames_rendered": null})";

TEST_F(Kpi, AreZeroOrNullWithoutPlaybacks) {
    CTYStore(Db()).Prune();
    const json groups = RunForJson({"kpi"});
    ASSERT_THAT(groups, SizeIs(1));
    ExpectSame(groups[0], json::parse(kNothing));
    EXPECT_EQ(RunForJson({"kpi", "--by", "player"}), json::array());
    const Result table = Run({"kpi"});
    EXPECT_EQ(table.code, 0);
    EXPECT_THAT(table.out, IsEmpty());
    EXPECT_EQ(table.err, "tallyra: no playbacks match\n");
}

TEST_F(Kpi, LeaveOutRecordsOfNoPlayback) {
    Play("", {{0, kPlayerError}});
    EXPECT_EQ(RunForJson({"kpi"})[0].at("playbacks"), 0);
}

TEST_F(Kpi, HaveATableOfSome) {
    PlayAll();
    const auto lines = LinesOf(Run({"kpi"}).out);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[0],
              "group  playbacks  lost %           tried  start failures %  exits %          "
              "started  failures %       start-up  p95       stalled %  stalls/h");
    EXPECT_EQ(lines[1],
              "all            9  22.2 (6.3–54.7)      8  12.5 (2.2–47.1)   12.5 (2.2–47.1)  "
              "      6  16.7 (3.0–56.4)  0:03.000  0:05.000  2.44       20.0");
    EXPECT_LE(lines[0].size(), 160U);
}

TEST_F(Kpi, OfSmallRatesHaveTwoDecimals) {
    std::vector<TYMediaData> records;
    for (int i = 0; i < 500; ++i) {
        const Script script = Named(std::to_string(i).c_str());
        records.push_back(RecordOf(script, {0, TY_EVENT_START}));
        records.push_back(RecordOf(script, {10, TY_EVENT_RENDER_START}));
        records.push_back(RecordOf(script, {20, TY_EVENT_STOP}));
    }
    StoreBatch(records, std::vector<std::string>(records.size(), "u"));
    EXPECT_THAT(Run({"kpi"}).out, HasSubstr("    500  0.00 (0.00–0.76)"));
}

TEST_F(Kpi, HaveAColumnForEachFigureInCsv) {
    PlayAll();
    const auto rows = ParseCsv(Run({"kpi", "--format", "csv"}).out);
    ASSERT_THAT(rows, SizeIs(2));
    std::map<std::string, std::string> cells;
    for (std::size_t i = 0; i < rows[0].size(); ++i) {
        cells[rows[0][i]] = rows[1].at(i);
    }
    EXPECT_THAT(cells, SizeIs(60));
    EXPECT_THAT(cells, testing::IsSupersetOf(
                           std::map<std::string, std::string>{{"group", "all"},
                                                              {"startup_ms_p50", "3000"},
                                                              {"stalls_per_playback_n", "6"},
                                                              {"start_failures_rate", "0.125"},
                                                              {"average_kbps", "4500"}}));
    EXPECT_NEAR(std::stod(cells["lost_rate_ci_low"]), 0.0632251, 1e-6);
    EXPECT_NEAR(std::stod(cells["lost_rate_ci_high"]), 0.5474110, 1e-6);
}

TEST_F(Kpi, OfNothingHaveTheSameColumns) {
    CTYStore(Db()).Prune();
    const auto empty = ParseCsv(Run({"kpi", "--format", "csv"}).out);
    ASSERT_THAT(empty, SizeIs(2));
    EXPECT_THAT(empty[1], SizeIs(empty[0].size()));
    PlayAll();
    EXPECT_EQ(ParseCsv(Run({"kpi", "--format", "csv"}).out)[0], empty[0]);
}

TEST_F(Kpi, AreJsonLinesWithAnEnd) {
    PlayAll();
    const auto lines = LinesOf(Run({"kpi", "--by", "player", "--format", "jsonl"}).out);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(json::parse(lines[0]).at("group"), "native");
    EXPECT_EQ(lines[1], R"({"end":true,"rows":1})");
}

struct Grouping {
    const char* pBy;
    std::vector<std::string> groups;
};
const Named<Grouping> kGroupings[] = {
    {"Application", {"application", {"org.example.player", "org.example.tv"}}},
    {"Version", {"version", {"org.example.player 2.4.1", "org.example.tv 3.0"}}},
    {"Player", {"player", {"42", "native"}}},
    {"Network", {"network", {"ethernet", "wifi"}}},
    {"ContentType", {"content-type", {"live", "vod"}}},
    {"Drm", {"drm", {"none", "not_set"}}},
    {"Hour", {"hour", {"2026-11-21T04:00Z", "2026-11-22T05:00Z"}}},
    {"Day", {"day", {"2026-11-21", "2026-11-22"}}},
};

class KpiGroups : public CTableTest<Kpi, Grouping> {};

TEST_P(KpiGroups, AreInTheOrderOfTheirNames) {
    Script script = Named("other");
    script.application = "org.example.tv";
    TYMediaData other = RecordOf(script, {25 * 3'600'000, TY_EVENT_START});
    CopyText(other.serviceVersion, "3.0");
    other.playerID = 42;
    other.networkType = TY_NETWORK_ETHERNET;
    other.content.contentType = TY_CONTENT_LIVE;
    other.content.drmType = static_cast<std::uint8_t>(TY_DRM_NOT_SET);
    StoreBatch({other}, {"u"});
    Play("one", {{0, TY_EVENT_START}});
    Play("two", {{1, TY_EVENT_START}});
    const json groups = RunForJson({"kpi", "--by", Case().pBy});
    EXPECT_EQ(Each<std::string>(groups, "group"), Case().groups);
    auto sizes = Each<int>(groups, "playbacks");
    EXPECT_THAT(sizes, testing::UnorderedElementsAre(1, 2));
}

INSTANTIATE_TEST_SUITE_P(Table, KpiGroups, testing::ValuesIn(kGroupings), kByName);

TEST_F(Kpi, NameGroupsOfWhichNoRecordTells) {
    TYMediaData record = RecordOf(Named("one"), {0, TY_EVENT_START});
    CopyText(record.serviceVersion, "");
    StoreBatch({record}, {"u"});
    CopyText(record.playbackID, "two");
    CopyText(record.serviceID, "");
    StoreBatch({record}, {"u"}, WallClockNow(), ":1.8");
    EXPECT_THAT(Each<std::string>(RunForJson({"kpi", "--by", "version"}), "group"),
                testing::ElementsAre("org.example.player unknown", "unknown unknown"));
    EXPECT_THAT(Each<std::string>(RunForJson({"kpi", "--by", "application"}), "group"),
                testing::ElementsAre("org.example.player", "unknown"));
}

TEST_F(Kpi, HaveNoLengthOfAStallThatBeginsWithTheLastRecord) {
    Lose("one", {{0, TY_EVENT_START},
                 {1000, TY_EVENT_RENDER_START},
                 {2000, TY_EVENT_BUFFERING_START},
                 {2500, TY_EVENT_BUFFERING_END},
                 {9000, TY_EVENT_BUFFERING_START}});
    const json all = RunForJson({"kpi"})[0];
    EXPECT_EQ(all.at("stalls"), 2);
    EXPECT_EQ(all.at("stalled_ms"), 500);
    EXPECT_EQ(all.at("stall_ms"), json::parse(R"({"n": 1, "p50": 500, "p95": 500, "p99": 500})"));
}

TEST_F(Kpi, OfHoursAndDaysAreThoseOfTheZoneAskedFor) {
    Play("late", {{15 * 3'600'000, TY_EVENT_START}});
    const auto group = [this](const char* pBy, const char* pZone) {
        auto arguments = Command({"kpi", "--by", pBy, pZone, "--format", "json"});
        arguments.insert(arguments.begin(), {"env", "TZ=IST-5:30"});
        return json::parse(RunProgram(arguments).out)[0].at("group").get<std::string>();
    };
    EXPECT_EQ(group("hour", "--utc"), "2026-11-21T19:00Z");
    EXPECT_EQ(group("hour", "--local"), "2026-11-22T00:00+05:30");
    EXPECT_EQ(group("day", "--local"), "2026-11-22");
}

TEST_F(Kpi, SelectPlaybacksByTheirStartAndApplication) {
    constexpr int kHourMs = 3'600'000;
    Play("first", {{0, TY_EVENT_START}});
    Play("second", {{kHourMs, TY_EVENT_START}});
    Store({.application = "org.example.tv", .playback = "third"}, {{kHourMs, TY_EVENT_START}});
    const auto count = [this](std::vector<std::string> options) {
        options.insert(options.begin(), "kpi");
        return RunForJson(options)[0].at("playbacks").get<int>();
    };
    EXPECT_EQ(count({"--since", "2026-11-21T05:09:50Z"}), 2);
    EXPECT_EQ(count({"--since", "2026-11-21T05:09:51Z"}), 0);
    EXPECT_EQ(count({"--until", "2026-11-21T05:09:50Z"}), 1);
    EXPECT_EQ(count({"--until", "2026-11-21T05:09:51Z", "--application", "org.example.tv"}), 1);
    EXPECT_EQ(count({"--application", "org.example"}), 0);
}

TEST_F(Kpi, RefuseAnUnknownGroup) {
    CTYStore(Db()).Prune();
    EXPECT_EQ(Run({"kpi", "--by", "weekday"}).code, 2);
}

}  // namespace
