// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

constexpr const char* kTimeline = R"(playback     263871795234190306049338
application  org.example.player
title        The Long Way Home
url          https://cdn.example/long-way-home.mp4
sender       :1.7, user 1000, process 4711
end          stopped
watched      3:40.000
start-up     0:01.480
stalls       2, 0:03.750
errors       0

time       event               kind    what
+0:00.000  START               event   from 0
+0:01.480  RENDER_START        event
+0:01.480  START_UP_TIME       event   took 0:01.480
+0:01.600  PLAYBACK_TIME       event   at 0:00.000
+1:01.600  BUFFERING_START     event   at 1:00.000, signal -61
+1:04.100  BUFFERING_END       event
+1:04.100  BUFFERING_TIME      event   took 0:02.500
+3:04.100  PLAYING_TIME        event   at 3:00.000, played 3:00.000
+3:05.000  PLAYBACK_TIME_JUMP  remark  at 8:20.000, was at 3:00.000
+3:35.000  PAUSE               event   at 8:50.000
+3:35.000  PLAYING_TIME        event   at 8:50.000, played 0:30.000
+5:00.000  RESUME              event
+5:00.100  PLAYBACK_TIME       event   at 8:50.000
+5:05.000  BUFFERING_START     event   at 8:55.000, signal -64
+5:06.250  BUFFERING_END       event
+5:06.250  BUFFERING_TIME      event   took 0:01.250
+5:11.000  SEEK                event   at 9:00.000 to 15:00.000
+5:31.000  STOP                event   at 9:20.000
+5:31.000  PLAYING_TIME        event   at 9:20.000, played 0:30.000
)";

class Playbacks : public CCommandTest {
  protected:
    // A playback without title.
    void Play(const char* pApplication, const char* pPlayback, std::int64_t arrival) {
        Store({pApplication, pPlayback, "", "films/a.mp4", ":1.7"}, {{0, TY_EVENT_START}}, arrival);
    }
    nlohmann::json Only() const {
        const auto rows = RunForJson({"playbacks"});
        EXPECT_EQ(rows.size(), 1U);
        return rows.at(0);
    }
};

TEST_F(Playbacks, AddUpTheirRecordsInOneBatchOrMany) {
    Store({}, WholePlayback());
    for (const Step& step : WholePlayback()) {
        Store({.playback = "2"}, {step});
    }
    auto expected = nlohmann::json::parse(R"({
        "start": "2026-11-21T04:09:50.000Z", "application": "org.example.player",
        "title": "The Long Way Home", "watched_media_ms": 220000, "startup_ms": 1480, "stalls": 2,
        "stalled_ms": 3750, "errors": 0, "end": "stopped", "stop_reason": null, "records": 19,
        "playback": "263871795234190306049338", "uid": 1000})");
    const auto rows = RunForJson({"playbacks"});
    ASSERT_THAT(rows, SizeIs(2));
    EXPECT_EQ(rows[1], expected);
    expected["playback"] = "2";
    EXPECT_EQ(rows[0], expected);
}

// The library remarks on the player's calls with these codes. A player that sends one
// makes such a remark too.
TEST_F(Playbacks, CountErrorsWithoutRemarks) {
    Store({}, {{0, TY_EVENT_START},
               {1, 200},
               {2, TY_ERROR_URL_CHANGED},
               {3, TY_ERROR_DUPLICATED_RENDER_START},
               {4, TY_ERROR_FIRST_OF_PLAYER},
               {5, TY_EVENT_STOP},
               {6, TY_ERROR_LAST_OF_PLAYER}});
    EXPECT_EQ(Only().at("errors"), 3);
    EXPECT_THAT(Run({"show", "--last"}).out, HasSubstr("\nerrors       3\n"));
}

// Clocks of players and of the service may be wrong, and a store may have been edited.
TEST_F(Playbacks, LimitTimesThatNoRecordCanHave) {
    Store({}, WholePlayback());
    Execute(
        "UPDATE entries SET time_sec = 9223372036854775807; "
        "UPDATE playbacks SET started_sec = 9223372036854775807, "
        "last_arrival = -9223372036854775808");
    EXPECT_EQ(Only().at("start"), "2038-01-19T03:14:07.000Z");
    EXPECT_THAT(Each<std::string>(RunForJson({"records"}), "time"),
                testing::Each(testing::StartsWith("2038-01-19T03:14:0")));
    EXPECT_EQ(RunForJson({"kpi"})[0].at("playbacks"), 1);
}

TEST_F(Playbacks, PrintPositionsOfAnySize) {
    Store({}, {{0, TY_EVENT_PLAYBACK_TIME}});
    Execute("UPDATE entries SET param1 = -9223372036854775808");
    EXPECT_THAT(Run({"show", "--last"}).out, HasSubstr("at -2562047788015:12:55\n"));
}

TEST_F(Playbacks, OfFarFutureArrivalsAreLost) {
    const std::int64_t now = WallClockNow();
    Play("a", "soon", now + 300 * kSecond);
    Play("b", "later", now + 3600 * kSecond);
    EXPECT_THAT(Each<std::string>(RunForJson({"playbacks"}), "end"),
                ElementsAre("lost", "playing"));
    EXPECT_EQ(RunForJson({"kpi"})[0].at("lost"), 1);
}

TEST_F(Playbacks, HaveATableAndCsvInMilliseconds) {
    Store({}, WholePlayback());
    const auto lines = LinesOf(Run({"playbacks"}).out);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[0],
              "start                     application         title              watched   startup"
              "   stalls  stalled   errors  end      records  playback                   uid");
    EXPECT_EQ(lines[1],
              "2026-11-21T04:09:50.000Z  org.example.player  The Long Way Home  3:40.000  0:01.480"
              "       2  0:03.750       0  stopped       19  263871795234190306049338  1000");
    const auto rows = ParseCsv(Run({"playbacks", "--format", "csv"}).out);
    ASSERT_THAT(rows, SizeIs(2));
    EXPECT_THAT(rows[1], testing::IsSupersetOf({"220000", "1480", "3750", "stopped"}));
}

TEST_F(Playbacks, FitIntoTheirTable) {
    Store({std::string(60, 'a'), Script().playback, std::string(200, 't'), "u", ":1.7"},
          WholePlayback());
    const auto lines = LinesOf(Run({"playbacks"}).out);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_THAT(lines[0], SizeIs(160));
    EXPECT_THAT(lines[1], HasSubstr("aaa…  tttt"));
    EXPECT_THAT(lines[1], HasSubstr("ttt…  3:40.000"));
    EXPECT_THAT(lines[1], testing::EndsWith("  " + Script().playback + "  1000"));
}

TEST_F(Playbacks, AreListedWithoutTheirStartOrTitle) {
    Store({}, {{61600, TY_EVENT_BUFFERING_START, 60000}}, 100 * kSecond);
    EXPECT_EQ(Only().at("title"), "The Long Way Home");
    EXPECT_EQ(Only().at("start"), "1970-01-01T00:01:40.000Z");
    EXPECT_TRUE(Only().at("startup_ms").is_null());
    Play("org.example.player", "1", 200 * kSecond);
    EXPECT_THAT(Each<std::string>(RunForJson({"playbacks"}), "title"),
                ElementsAre("films/a.mp4", "The Long Way Home"));
}

TEST_F(Playbacks, AreListedInTheOrderOfTheirRecordsWhateverTheClockShowed) {
    Play("org.a", "1", WallClockNow() + 40 * 86'400 * kSecond);
    Play("org.a", "2", 0);
    Play("org.a", "3", WallClockNow());
    EXPECT_THAT(Each<std::string>(RunForJson({"playbacks"}), "playback"),
                ElementsAre("3", "2", "1"));
}

TEST_F(Playbacks, EndAsTheirRecordsTell) {
    const std::int64_t now = WallClockNow();
    const std::int64_t hourAgo = now - 3600 * kSecond;
    const Step start{0, TY_EVENT_START};
    const Step frame{900, TY_EVENT_RENDER_START};
    const struct {
        std::vector<Step> steps;
        std::int64_t arrival;
        const char* pEnd;
    } cases[] = {
        {{start}, hourAgo, "lost"},
        {{start, {20, kPlayerError}}, hourAgo, "lost"},
        {{start, {20, kPlayerError}}, now, "playing"},
        {{start, frame, {2000, TY_EVENT_STOP}}, now, "stopped"},
        {{start, {30, TY_EVENT_STOP}}, now, "exit_before_start"},
        {{start, {20, kPlayerError}, {30, TY_EVENT_STOP}}, now, "start_failure"},
        {{start, frame, {2000, TY_EVENT_STOP, 0, TY_STOP_FATAL_ERROR}}, now, "playback_failure"}};
    int number = 0;
    for (const auto& one : cases) {
        Store({.playback = std::to_string(++number)}, one.steps, one.arrival);
        EXPECT_EQ(RunForJson({"playbacks"}).at(0).at("end"), one.pEnd) << number;
        EXPECT_EQ(RunForJson({"show", "--last"}).at(0).at("end"), one.pEnd) << number;
        EXPECT_THAT(RunForJson({"playbacks", "--end", one.pEnd}), Not(testing::IsEmpty()));
    }
    EXPECT_EQ(RunForJson({"playbacks"}).at(0).at("stop_reason"), "fatal_error");
    EXPECT_THAT(RunForJson({"playbacks", "--end", "failed"}), SizeIs(2));
    EXPECT_THAT(Run({"playbacks", "-n", "1"}).out, HasSubstr("  failed  "));
    EXPECT_THAT(Run({"show", "7"}).out, HasSubstr("end          playback failure, fatal error\n"));
}

TEST_F(Playbacks, CountNoStallsOfTheirStartAndOfSeeksAndNoSkippedMedia) {
    Store({}, {{0, TY_EVENT_START},
               {100, TY_EVENT_BUFFERING_START, -1},
               {900, TY_EVENT_BUFFERING_END},
               {1000, TY_EVENT_RENDER_START},
               {1000, TY_EVENT_PLAYBACK_TIME, 0},
               {61000, TY_EVENT_SEEK, 60000, 240000},
               {61100, TY_EVENT_BUFFERING_START, 60000},
               {61200, TY_EVENT_SEEK_COMPLETE},
               {61900, TY_EVENT_BUFFERING_END},
               {62000, TY_EVENT_PLAYBACK_TIME, 240000},
               {63000, TY_EVENT_PLAYING_TIME, 241000, 241000},
               {72000, TY_EVENT_STOP, 250000}});
    EXPECT_EQ(Only().at("stalls"), 0);
    EXPECT_EQ(Only().at("stalled_ms"), 0);
    EXPECT_EQ(Only().at("watched_media_ms"), 70000);
}

TEST_F(Playbacks, AreSelectedByFilters) {
    Play("org.a", "1", 100 * kSecond);
    Play("org.a", "2", 200 * kSecond);
    Play("org.b", "3", 300 * kSecond);
    Play("org.long", "4", 100 * kSecond);
    Play("org.long", "4", 300 * kSecond);
    const struct {
        std::vector<std::string> filter;
        std::vector<std::string> playbacks;
    } cases[] = {{{}, {"4", "3", "2", "1"}},
                 {{"--application", "org.a"}, {"2", "1"}},
                 {{"--application", "org.a", "--limit", "1"}, {"2"}},
                 {{"--since", "@150", "--until", "@250"}, {"4", "2"}},
                 {{"--application", "org.long", "--since", "@301"}, {}}};
    for (const auto& one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.filter));
        std::vector<std::string> command = one.filter;
        command.insert(command.begin(), "playbacks");
        EXPECT_EQ(Each<std::string>(RunForJson(command), "playback"), one.playbacks);
    }
}

TEST_F(Playbacks, DoNotIncludeRecordsWithoutPlayback) {
    Store({.playback = ""}, {{0, kPlayerError}});
    EXPECT_THAT(RunForJson({"playbacks"}), SizeIs(0));
    EXPECT_THAT(RunForJson({"records"}), SizeIs(1));
}

TEST_F(Playbacks, HaveATimeline) {
    Store({}, WholePlayback());
    EXPECT_EQ(Run({"show", Script().playback}).out, kTimeline);
    const auto rows = RunForJson({"show", Script().playback});
    ASSERT_THAT(rows, SizeIs(19));
    auto record = RunForJson({"records"}).at(4);
    EXPECT_EQ(record.at("what"), "at 1:00.000, signal -61");
    record.update({{"offset_ms", 61600},
                   {"watched_media_ms", 220000},
                   {"startup_ms", 1480},
                   {"stalls", 2},
                   {"stalled_ms", 3750},
                   {"errors", 0},
                   {"end", "stopped"},
                   {"stop_reason", nullptr}});
    EXPECT_EQ(rows[4], record);
}

const struct {
    Step step;
    const char* pWords;
} kConventions[] = {
    {{0, TY_EVENT_BUFFERING_END, 0, TY_STALL_START}, "because of the start"},
    {{0, TY_EVENT_BUFFERING_END, 7, TY_STALL_SEEK}, "7, because of a seek"},
    {{0, TY_EVENT_BUFFERING_TIME, 2500, TY_STALL_CONNECTION},
     "took 0:02.500, because of the connection"},
    {{0, TY_EVENT_BUFFERING_END, 0, TY_STALL_RENDITION_SWITCH}, "because of a rendition switch"},
    {{0, TY_EVENT_BUFFERING_END, 0, 9}, "cause 9"},
    {{0, TY_EVENT_RENDITION, 5000, TYFrameSize(1920, 1080)}, "5000 kbit/s, 1920x1080"},
    {{0, TY_EVENT_RENDITION, 128}, "128 kbit/s"},
    {{0, TY_EVENT_DROPPED_FRAMES, 7, 100}, "7 dropped, 100 shown"},
    {{0, TY_EVENT_STOP, 1000, TY_STOP_END_OF_CONTENT}, "at 0:01.000, end of content"},
    {{0, TY_EVENT_STOP, 1000, TY_STOP_USER}, "at 0:01.000, by user"},
    {{0, TY_EVENT_STOP, -1, TY_STOP_REPLACED}, "before any position, replaced"},
    {{0, TY_EVENT_STOP, 1000, 9}, "at 0:01.000, reason 9"},
};

TEST_F(Playbacks, HaveTheConventionsInWords) {
    std::vector<Step> steps;
    std::vector<std::string> words;
    for (const auto& one : kConventions) {
        steps.push_back(one.step);
        words.emplace_back(one.pWords);
    }
    Store({}, steps);
    for (const char* pCommand : {"show", "records", "export"}) {
        std::vector<std::string> command = {pCommand};
        command.insert(command.end(), pCommand == std::string("show"), "--last");
        EXPECT_EQ(Each<std::string>(RunForJson(command), "what"), words) << pCommand;
    }
}

TEST_F(Playbacks, HaveCustomTextsInTheirTimeline) {
    constexpr int kFree = 100;
    std::vector<TYMediaData> records;
    const char* texts[] = {"{\"profile\":\"adult\"}", "bitrate 4200", "{\"profile\":\"adult\"}"};
    for (const char* pText : texts) {
        records.push_back(RecordOf({}, {0, records.empty() ? int{TY_EVENT_START} : kFree, 7}));
        CopyText(records.back().content.customInfo, pText);
    }
    StoreBatch(records, {"u", "u", "u"});
    EXPECT_THAT(Each<std::string>(RunForJson({"show", Script().playback}), "what"),
                ElementsAre("from 7", "7, 0, bitrate 4200", "7, 0"));
}

TEST_F(Playbacks, OfTwoSendersHaveTwoTimelines) {
    Store({}, {{0, TY_EVENT_START}});
    Store({"org.example.thief", Script().playback, "Other", "u", ":1.8"}, {{0, TY_EVENT_STOP}});
    const auto rows = RunForJson({"show", Script().playback});
    EXPECT_THAT(Each<std::string>(rows, "sender"), ElementsAre(":1.7", ":1.8"));
    const std::string text = Run({"show", Script().playback}).out;
    EXPECT_THAT(text, HasSubstr("title        The Long Way Home\n"));
    EXPECT_THAT(text, HasSubstr("\n\nplayback     " + Script().playback +
                                "\napplication  org.example.thief\n"));
    EXPECT_THAT(text, Not(HasSubstr("\n\n\n")));
}

using Figures = std::map<std::string, std::int64_t>;

class Stats : public CCommandTest {
  protected:
    // Expects some of the figures of an application, or of all with an empty name.
    void Expect(const std::string& application, const Figures& expected) const {
        Figures figures;
        for (const auto& row : RunForJson({"stats"})) {
            const auto& of = row.at("application");
            if ((of.is_null() ? "" : of.get<std::string>()) == application) {
                figures[row.at("what")] = row.at("value");
            }
        }
        EXPECT_THAT(figures, testing::IsSupersetOf(expected));
    }
    static Script Of(const char* pPlayback, const char* pSender = ":1.7") {
        return {"org.example.tv", pPlayback, "", "u", pSender};
    }
};

TEST_F(Stats, AddUpAllPlaybacksAndEachApplication) {
    Store({}, WholePlayback());
    Store(Of("2", ":1.8"), {{0, TY_EVENT_START}, {1, kPlayerError}});
    Expect("", {{"records", 21},
                {"records_made_by_library", 6},
                {"playbacks", 2},
                {"senders", 2},
                {"batches", 2},
                {"watched_media_ms", 220000},
                {"stalls", 2},
                {"stalled_ms", 3750},
                {"errors", 1},
                {"records of SEEK", 1}});
    Expect("org.example.player",
           {{"records", 19}, {"watched_media_ms", 220000}, {"stalls", 2}, {"errors", 0}});
    Expect("org.example.tv", {{"records", 2}, {"playbacks", 1}, {"errors", 1}});
}

TEST_F(Stats, CountNothingMissingInAWholePlaybackAndTheSizeOfTheStore) {
    Store({}, WholePlayback());
    Expect("", {{"playbacks_without_start", 0},
                {"playbacks_without_end", 0},
                {"derived_records_missing", 0},
                {"playbacks_dropped", 0},
                {"records_dropped", 0},
                {"store_bytes", static_cast<std::int64_t>(std::filesystem::file_size(Db()))}});
}

TEST_F(Stats, CountMissingStartsAndEnds) {
    Store(Of("1"), {{0, TY_EVENT_START}});
    Store(Of("2"), {{0, TY_EVENT_STOP}, {0, TY_EVENT_PLAYING_TIME}});
    Store(Of("3"), {{0, TY_EVENT_BUFFERING_START}});
    Expect("", {{"playbacks_without_start", 2}, {"playbacks_without_end", 2}});
}

TEST_F(Stats, CountMissingDerivedRecords) {
    Store(Of("1"), {{0, TY_EVENT_START}, {1, TY_EVENT_RENDER_START}, {2, TY_EVENT_PLAYBACK_TIME}});
    Expect("", {{"derived_records_missing", 1}});
    Store(Of("2", ":1.8"), {{0, TY_EVENT_BUFFERING_END}, {1, TY_EVENT_PAUSE}, {2, TY_EVENT_STOP}});
    Expect("", {{"derived_records_missing", 4}});
    // Each of these has its derived record, though in the next batch.
    Store(Of("3", ":1.9"), {{0, TY_EVENT_BUFFERING_END}});
    Store(Of("3", ":1.9"),
          {{0, TY_ERROR_BUFFERING_MISMATCH}, {1, TY_EVENT_STOP}, {1, TY_EVENT_PLAYING_TIME}});
    Expect("", {{"derived_records_missing", 4}});
}

TEST_F(Stats, CountDroppedPlaybacks) {
    Store(Of("1"), {{0, TY_EVENT_START}, {1, TY_EVENT_STOP}});
    MakeOlder(m_File, std::chrono::hours(2));
    Store(Of("2"), {{0, TY_EVENT_START}});
    CTYStore(Db(), {std::chrono::hours(1), std::int64_t{1} << 30}).Prune();
    Expect("", {{"playbacks_dropped", 1}, {"records_dropped", 2}, {"records", 1}});
}

TEST_F(Stats, HaveATableAndCsv) {
    Store({}, WholePlayback());
    EXPECT_THAT(Run({"stats"}).out, HasSubstr("org.example.player  watched_media_ms"));
    const auto rows = ParseCsv(Run({"stats", "--format", "csv"}).out);
    EXPECT_THAT(rows, Contains(ElementsAre("", "records", "19")));
    EXPECT_THAT(rows, Contains(ElementsAre("org.example.player", "errors", "0")));
}

}  // namespace
