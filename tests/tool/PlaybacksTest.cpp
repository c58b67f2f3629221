// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

constexpr std::int64_t kHour = 3600 * kSecond;

constexpr const char* kTimeline = R"(playback     263871795234190306049338
application  org.example.player
title        The Long Way Home
url          https://cdn.example/long-way-home.mp4
sender       :1.7
end          stopped
watched      4:00.000
start-up     0:01.480
stalls       2, 0:03.750
errors       1

time       event               what
+0:00.000  START               from 0
+0:01.480  RENDER_START
+0:01.480  START_UP_TIME       took 0:01.480
+0:01.600  PLAYBACK_TIME       at 0:00.000
+1:01.600  BUFFERING_START     at 1:00.000, signal -61
+1:04.100  BUFFERING_END
+1:04.100  BUFFERING_TIME      took 0:02.500
+3:04.100  PLAYING_TIME        at 3:00.000, played 3:00.000
+3:05.000  PLAYBACK_TIME_JUMP  at 8:20.000, was at 3:00.000
+3:35.000  PAUSE               at 8:50.000
+3:35.000  PLAYING_TIME        at 8:50.000, played 0:30.000
+5:00.000  RESUME
+5:00.100  PLAYBACK_TIME       at 8:50.000
+5:05.000  BUFFERING_START     at 8:55.000, signal -64
+5:06.250  BUFFERING_END
+5:06.250  BUFFERING_TIME      took 0:01.250
+5:11.000  SEEK                at 9:00.000 to 15:00.000
+5:31.000  STOP                at 9:20.000
+5:31.000  PLAYING_TIME        at 9:20.000, played 0:30.000
)";

class CPlaybacksTest : public CStoreTest {
  protected:
    nlohmann::json Playback(const std::string& id) const {
        for (const auto& row : RunForJson({"playbacks"})) {
            if (row.at("playback") == id) {
                return row;
            }
        }
        return nullptr;
    }
    std::string EndOf(const std::vector<Step>& steps, std::int64_t arrival) {
        Store({}, steps, arrival);
        return Playback(Script().playback).at("end");
    }
};

TEST_F(CPlaybacksTest, SumUpTheirRecords) {
    Store({}, WholePlayback(), NowNs());
    const auto expected = nlohmann::json::parse(R"({
        "start": "2026-11-21T04:09:50.000Z", "application": "org.example.player",
        "title": "The Long Way Home", "watched": 240000, "startup": 1480, "stalls": 2,
        "stalled": 3750, "errors": 1, "end": "stopped", "records": 19,
        "playback": "263871795234190306049338"})");
    EXPECT_EQ(RunForJson({"playbacks"}), nlohmann::json::array({expected}));
}

TEST_F(CPlaybacksTest, SumUpTheSameOverManyBatches) {
    for (const Step& step : WholePlayback()) {
        Store({}, {step}, NowNs());
    }
    const auto row = Playback(Script().playback);
    EXPECT_EQ(row.at("watched"), 240000);
    EXPECT_EQ(row.at("stalled"), 3750);
    EXPECT_EQ(row.at("records"), 19);
}

TEST_F(CPlaybacksTest, HaveATableForPeople) {
    Store({}, WholePlayback(), NowNs());
    const auto lines = LinesOf(Run({"playbacks"}).out);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[0],
              "start                     application         title              watched   startup"
              "   stalls  stalled   errors  end      records  playback");
    EXPECT_EQ(lines[1],
              "2026-11-21T04:09:50.000Z  org.example.player  The Long Way Home  4:00.000  0:01.480"
              "       2  0:03.750       1  stopped       19  263871795234190306049338");
}

TEST_F(CPlaybacksTest, HaveLengthsInMillisecondsInCsv) {
    Store({}, WholePlayback(), NowNs());
    const auto rows = ParseCsv(Run({"playbacks", "--format", "csv"}).out);
    ASSERT_THAT(rows, SizeIs(2));
    EXPECT_THAT(rows[1], testing::IsSupersetOf({"240000", "1480", "3750", "stopped"}));
}

TEST_F(CPlaybacksTest, AreNamedByTheirUrlWithoutATitle) {
    Store(Script{"org.example.player", "1", "", "films/a.mp4", ":1.7"}, {{0, 1}}, NowNs());
    EXPECT_EQ(Playback("1").at("title"), "films/a.mp4");
}

TEST_F(CPlaybacksTest, AreNamedEvenWhenTheirStartIsMissing) {
    Store({}, {{61600, 4, 60000}}, 100 * kSecond);
    const auto row = Playback(Script().playback);
    EXPECT_EQ(row.at("title"), "The Long Way Home");
    EXPECT_EQ(row.at("start"), "1970-01-01T00:01:40.000Z");
    EXPECT_TRUE(row.at("startup").is_null());
}

TEST_F(CPlaybacksTest, EndAsTheirRecordsTell) {
    EXPECT_EQ(EndOf({{0, 1}}, NowNs()), "playing");
    EXPECT_EQ(EndOf({{10, 2}}, NowNs()), "stopped");
}

TEST_F(CPlaybacksTest, AreLostWhenTheyFallSilent) {
    EXPECT_EQ(EndOf({{0, 1}}, NowNs() - kHour), "lost");
}

TEST_F(CPlaybacksTest, HaveFailedWhenTheyFallSilentAfterAnError) {
    EXPECT_EQ(EndOf({{0, 1}, {10, 240}}, NowNs() - kHour), "failed");
}

TEST_F(CPlaybacksTest, AreTheNewestOfAnApplicationInAWindow) {
    Store(Script{"org.a", "1", "", "u", ":1.1"}, {{0, 1}}, 100 * kSecond);
    Store(Script{"org.a", "2", "", "u", ":1.1"}, {{0, 1}}, 200 * kSecond);
    Store(Script{"org.b", "3", "", "u", ":1.2"}, {{0, 1}}, 300 * kSecond);
    const auto ids = [this](std::vector<std::string> filter) {
        filter.insert(filter.begin(), "playbacks");
        return Each<std::string>(RunForJson(filter), "playback");
    };
    EXPECT_THAT(ids({}), ElementsAre("3", "2", "1"));
    EXPECT_THAT(ids({"--application", "org.a"}), ElementsAre("2", "1"));
    EXPECT_THAT(ids({"--limit", "1"}), ElementsAre("3"));
    EXPECT_THAT(ids({"--since", "@150", "--until", "@250"}), ElementsAre("2"));
}

TEST_F(CPlaybacksTest, ReachIntoAWindowWithAnyOfTheirTime) {
    Store({}, {{0, 1}}, 100 * kSecond);
    Store({}, {{0, 2}}, 300 * kSecond);
    EXPECT_THAT(RunForJson({"playbacks", "--since", "@150", "--until", "@250"}), SizeIs(1));
    EXPECT_THAT(RunForJson({"playbacks", "--since", "@301"}), SizeIs(0));
}

TEST_F(CPlaybacksTest, LeaveOutRecordsOutsideOfAny) {
    Store(Script{"org.example.player", "", "", "u", ":1.7"}, {{0, 220}}, NowNs());
    EXPECT_THAT(RunForJson({"playbacks"}), SizeIs(0));
    EXPECT_THAT(RunForJson({"records"}), SizeIs(1));
}

TEST_F(CPlaybacksTest, AreShownAsATimeline) {
    Store({}, WholePlayback(), NowNs());
    EXPECT_EQ(Run({"show", Script().playback}).out, kTimeline);
}

TEST_F(CPlaybacksTest, AreShownToProgramsWithEveryNumber) {
    Store({}, {{0, 1}, {61600, 4, 60000, -61}}, NowNs());
    const auto rows = RunForJson({"show", Script().playback});
    const auto expected = nlohmann::json::parse(R"({
        "sender": ":1.7", "time": "2026-11-21T04:10:51.600Z", "offset_ms": 61600,
        "event": "BUFFERING_START", "code": 4, "param1": 60000, "param2": -61,
        "what": "at 1:00.000, signal -61"})");
    ASSERT_THAT(rows, SizeIs(2));
    EXPECT_EQ(rows[1], expected);
}

TEST_F(CPlaybacksTest, AreShownWithTheTextsOfTheirFreeRecords) {
    std::vector<TYMediaData> records;
    const char* texts[] = {"{\"profile\":\"adult\"}", "bitrate 4200", "{\"profile\":\"adult\"}"};
    for (const char* pText : texts) {
        records.push_back(RecordOf({}, {0, 100, 7}));
        CopyText(records.back().content.customInfo, pText);
    }
    records[0].event = 1;
    StoreBatch(records, {"u", "u", "u"}, NowNs());

    const auto rows = RunForJson({"show", Script().playback});
    EXPECT_THAT(Each<std::string>(rows, "what"),
                ElementsAre("from 7", "7, 0, bitrate 4200", "7, 0"));
}

TEST_F(CPlaybacksTest, OfTwoSendersWithOneIdentifierAreShownApart) {
    Store({}, {{0, 1}}, NowNs());
    Store(Script{"org.example.thief", Script().playback, "Other", "u", ":1.8"}, {{0, 2}}, NowNs());

    const auto rows = RunForJson({"show", Script().playback});
    EXPECT_THAT(Each<std::string>(rows, "sender"), ElementsAre(":1.7", ":1.8"));
    const std::string text = Run({"show", Script().playback}).out;
    EXPECT_THAT(text, HasSubstr("title        The Long Way Home\n"));
    EXPECT_THAT(text, HasSubstr("\n\nplayback     " + Script().playback +
                                "\napplication  org.example.thief\n"));
    EXPECT_THAT(text, Not(HasSubstr("\n\n\n")));
}

}  // namespace
