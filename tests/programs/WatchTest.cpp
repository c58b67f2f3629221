// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"
#include "PrivateBus.h"

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr int kMinute = 60;

/// What plays now, beside a playback that has stopped and one that is long silent.
class Watch : public CCommandTest {
  protected:
    void SetUp() override {
        Store({.playback = "stopped"}, WholePlayback());
        Store({.playback = "silent"}, {{0, TY_EVENT_START}},
              WallClockNow() - 11 * kMinute * kSecond);
        Store({.playback = "plays"},
              {{0, TY_EVENT_START},
               {1480, TY_EVENT_RENDER_START},
               {1600, TY_EVENT_PLAYBACK_TIME, 0},
               {61600, TY_EVENT_BUFFERING_START, 60000},
               {64100, TY_EVENT_BUFFERING_END},
               {94100, TY_EVENT_PLAYBACK_TIME, 90000}},
              WallClockNow() - 5 * kSecond);
    }
    json Snapshot(std::vector<std::string> more = {}) const {
        more.insert(more.begin(), {"watch", "--once"});
        return RunForJson(more);
    }
};

TEST_F(Watch, ShowsWhatPlaysNow) {
    json rows = Snapshot();
    ASSERT_EQ(rows.size(), 1U);
    json& row = rows[0];
    EXPECT_NEAR(row.at("age_ms").get<double>(), 5000, 4000);
    // It plays on since the last record.
    EXPECT_EQ(row.at("position_ms"), 90'000 + row.at("age_ms").get<int>());
    row.erase("position_ms");
    row.erase("age_ms");
    EXPECT_EQ(row.at("time").get<std::string>().size(), 24U);
    row.erase("time");
    EXPECT_EQ(row, json({{"application", "org.example.player"},
                         {"title", "The Long Way Home"},
                         {"phase", "playing"},
                         {"startup_ms", 1480},
                         {"stalls", 1},
                         {"stalled_ms", 2500},
                         {"last_event", "PLAYBACK_TIME"},
                         {"as_of", "2026-11-21T04:11:24.100Z"},
                         {"playback", "plays"}}));
}

// The wall clock was set back since.
TEST_F(Watch, TakesArrivalsInTheNearFutureForNow) {
    Store({.application = "ahead", .playback = "soon"}, {{0, TY_EVENT_START}},
          WallClockNow() + 300 * kSecond);
    Store({.application = "ahead", .playback = "later"}, {{0, TY_EVENT_START}},
          WallClockNow() + 3600 * kSecond);
    const json rows = Snapshot({"--application", "ahead"});
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0].at("playback"), "soon");
    EXPECT_EQ(rows[0].at("age_ms"), 0);
}

const struct {
    std::vector<Step> steps;
    const char* pPhase;
} kPhases[] = {
    {{{0, TY_EVENT_START}}, "start-up"},
    {{{0, TY_EVENT_START}, {1, TY_EVENT_RENDER_START}, {2, TY_EVENT_PAUSE}}, "paused"},
    {{{0, TY_EVENT_START}, {1, TY_EVENT_RENDER_START}, {2, TY_EVENT_SEEK}}, "seeking"},
    {{{0, TY_EVENT_START}, {1, TY_EVENT_RENDER_START}, {2, TY_EVENT_BUFFERING_START}}, "stalled"},
};

TEST_F(Watch, TellsThePhaseThatEachIsIn) {
    for (const auto& one : kPhases) {
        Store({.application = one.pPhase, .playback = one.pPhase}, one.steps);
        EXPECT_THAT(Each<std::string>(Snapshot({"--application", one.pPhase}), "phase"),
                    ElementsAre(one.pPhase));
    }
}

TEST_F(Watch, CountsAStallThatLastsAndHoldsThePosition) {
    Store({.application = "org.b", .playback = "stalls"},
          {{0, TY_EVENT_START},
           {1480, TY_EVENT_RENDER_START},
           {1600, TY_EVENT_PLAYBACK_TIME, 0},
           {61600, TY_EVENT_BUFFERING_START, 60000}},
          WallClockNow() - 5 * kSecond);
    const json row = Snapshot({"--application", "org.b"}).at(0);
    EXPECT_EQ(row.at("position_ms"), 60000);
    EXPECT_EQ(row.at("stalls"), 1);
    EXPECT_EQ(row.at("stalled_ms"), row.at("age_ms"));
    EXPECT_GE(row.at("stalled_ms"), 5000);
}

TEST_F(Watch, GoesByTheTimeOfARecordIfItArrivedSoonAfter) {
    const std::int64_t now = WallClockNow();
    TYMediaData record = RecordOf({.application = "org.b", .playback = "b"}, {0, TY_EVENT_START});
    const std::int64_t made = now / kSecond - 25;
    record.time = {static_cast<std::int32_t>(made), 0};
    StoreBatch({record}, {"u"}, now - 5 * kSecond);
    const json row = Snapshot({"--application", "org.b"}).at(0);
    EXPECT_GE(row.at("age_ms"), 25'000);
    EXPECT_LT(row.at("age_ms"), 35'000);
}

TEST_F(Watch, PrintsOneObjectForEachPlaybackAndRefresh) {
    CProgram watch(Command({"watch", "--format", "jsonl"}));
    ASSERT_TRUE(watch.Prints("plays"));
    Store({.playback = "next"}, {{0, TY_EVENT_START}});
    ASSERT_TRUE(watch.Prints("next"));
    watch.Signal(SIGINT);
    const Result result = watch.Finish();
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
    const auto lines = LinesOf(result.out);
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(json::parse(lines[0]).at("playback"), "plays");
    EXPECT_EQ(json::parse(lines.back()).at("rows"), lines.size() - 1);
}

TEST_F(Watch, PrintsSnapshotsToAFile) {
    CProgram watch(Command({"watch"}));
    ASSERT_TRUE(watch.Prints("active\napplication"));
    ASSERT_TRUE(watch.Prints("\n\n20"));
    watch.Signal(SIGTERM);
    const Result result = watch.Finish();
    EXPECT_EQ(result.code, 0);
    EXPECT_THAT(result.out, HasSubstr("  1 active\n"));
    EXPECT_THAT(result.out, Not(HasSubstr("\033")));
}

TEST_F(Watch, RedrawsInPlaceOnATerminal) {
    std::vector<std::string> command = Command({"watch"});
    command.insert(command.begin(), {"timeout", "--signal=INT", "2.5"});
    const std::string text = RunOnTerminal(command);
    const std::string head = "\033[?7l\033[H20";
    const auto first = text.find(head);
    ASSERT_NE(first, std::string::npos) << text;
    EXPECT_NE(text.find(head, first + 1), std::string::npos);
    EXPECT_THAT(text, HasSubstr("  1 active\033[K"));
    EXPECT_THAT(text, HasSubstr("plays\033[K"));
}

TEST_F(Watch, SaysThatNothingPlays) {
    const CPrivateBus bus;
    const Result result =
        Run({"watch", "--once", "--application", "org.example.none", "--address", bus.Address()});
    EXPECT_EQ(result.code, 0);
    EXPECT_THAT(result.out,
                HasSubstr("  0 active; tallyra-service does not run on " + bus.Address() + "\n"));
    EXPECT_EQ(LinesOf(result.out).size(), 1U);
    EXPECT_THAT(Run({"watch", "--once", "--application", "x", "--address", "unix:path=/no"}).out,
                HasSubstr("  0 active; whether tallyra-service runs is unknown: "));
}

TEST_F(Watch, GoesOnWithTheStoreThatReplacesTheOldOne) {
    CProgram watch(Command({"watch", "--format", "jsonl"}));
    ASSERT_TRUE(watch.Prints("plays"));
    std::filesystem::rename(Db(), File("moved.db"));
    ASSERT_TRUE(Eventually([&] { return watch.Errors().find("waiting") != std::string::npos; }));
    std::filesystem::remove(Db() + "-wal");
    std::filesystem::remove(Db() + "-shm");
    Store({.playback = "new"}, {{0, TY_EVENT_START}});
    EXPECT_TRUE(watch.Prints("\"new\""));
    watch.Signal(SIGINT);
    EXPECT_EQ(watch.Finish().code, 0);
}

}  // namespace
