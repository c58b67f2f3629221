// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

namespace {

using testing::HasSubstr;

using Words = std::vector<std::string>;

// Three playbacks with six records, of two users on two networks.
class Selection : public CCommandTest {
  protected:
    void SetUp() override {
        Send("100", "Été à la mer, День", 1000, TY_NETWORK_WIFI,
             {{0, TY_EVENT_START}, {9, TY_EVENT_STOP}});
        Send("200", "News", 1001, TY_NETWORK_ETHERNET,
             {{1, TY_EVENT_START}, {2, kPlayerError, 7}, {3, TY_EVENT_BUFFERING_TIME, 500}});
        Send("210", "More News", std::nullopt, TY_NETWORK_UNKNOWN, {{4, TY_EVENT_START, 3}});
    }

    void Send(const std::string& playback, const std::string& title,
              std::optional<std::int64_t> uid, int network, const std::vector<Step>& steps) {
        TYBatch batch = MakeBatch({}, WallClockNow());
        for (const Step& step : steps) {
            batch.records.push_back(RecordOf({.playback = playback, .title = title}, step));
            batch.records.back().networkType = static_cast<std::uint8_t>(network);
        }
        batch.urls.resize(steps.size(), "u");
        batch.sender = {"bus", ":" + playback, uid, {}};
        CTYStore(Db()).Add(batch);
    }
    std::vector<int> Ids(Words options) const {
        options.insert(options.begin(), "records");
        return Each<int>(RunForJson(options), "id");
    }
    Words Playbacks(Words options) const {
        options.insert(options.begin(), "playbacks");
        return Each<std::string>(RunForJson(options), "playback");
    }
};

const std::pair<Words, std::vector<int>> kRecords[] = {
    {{"--errors"}, {4}},
    {{"--code", "START", "--code", "stop"}, {1, 2, 3, 6}},
    {{"--code", "START,2"}, {1, 2, 3, 6}},
    {{"--code", "STOP", "--errors"}, {2, 4}},
    {{"--title", "news"}, {3, 4, 5, 6}},
    {{"--title", "ÉTÉ À"}, {1, 2}},
    {{"--title", "ДЕНЬ"}, {1, 2}},
    {{"--title", "no%"}, {}},
    {{"--uid", "1001"}, {3, 4, 5}},
    {{"--uid", "-1"}, {6}},
    {{"--network", "WiFi"}, {1, 2}},
    {{"--network", "unknown"}, {6}},
    {{"--network", "1", "--code", "1"}, {3}},
    {{"-n", "2"}, {5, 6}},
    {{"--reverse", "-n", "2"}, {6, 5}},
    {{"--reverse"}, {6, 5, 4, 3, 2, 1}},
    {{"--sort", "code", "-n", "4"}, {1, 3, 6, 2}},
    {{"--sort", "param1", "--reverse", "-n", "2"}, {5, 4}},
    {{"--sort", "uid", "-n", "-1"}, {1, 2, 3, 4, 5, 6}},
    {{"--sort", "uid", "--reverse", "-n", "-1"}, {5, 4, 3, 2, 1, 6}},
    {{"--sort", "time"}, {1, 3, 4, 5, 6, 2}},
    {{"--sort", "time", "--playback", "200", "--reverse", "-n", "2"}, {5, 4}},
    {{"--sort", "id", "-n", "2"}, {1, 2}},
};

TEST_F(Selection, OfErrorsLeavesOutRemarksOfTheLibrary) {
    Send("300", "", 1000, TY_NETWORK_WIFI, {{5, TY_ERROR_PLAYBACK_TIME_JUMP}, {6, 200}});
    Send("310", "", 1000, TY_NETWORK_WIFI, {{7, TY_ERROR_PLAYBACK_TIME_JUMP}});
    EXPECT_EQ(Ids({"--errors"}), std::vector<int>({4, 8}));
    EXPECT_EQ(Ids({"--code", "204"}), std::vector<int>({7, 9}));
    EXPECT_EQ(Ids({"--code", "204", "--errors"}), std::vector<int>({4, 7, 8, 9}));
    EXPECT_EQ(Playbacks({"--errors"}), Words({"300", "200"}));
}

TEST_F(Selection, OfRecords) {
    for (const auto& [options, ids] : kRecords) {
        EXPECT_EQ(Ids(options), ids) << testing::PrintToString(options);
    }
}

const std::pair<Words, Words> kPlaybacks[] = {
    {{"--errors"}, {"200"}},
    {{"--title", "NEWS"}, {"210", "200"}},
    {{"--uid", "1000"}, {"100"}},
    {{"--uid", "-1"}, {"210"}},
    {{"--network", "ethernet"}, {"200"}},
    {{"--end", "exited"}, {"100"}},
    {{"--end", "exited,lost", "--end", "playing"}, {"210", "200", "100"}},
    {{"--end", "playing", "-n", "1"}, {"210"}},
    {{"--reverse"}, {"100", "200", "210"}},
    {{"--reverse", "-n", "2"}, {"200", "210"}},
    {{"--sort", "records", "--reverse"}, {"200", "100", "210"}},
    {{"--sort", "records", "-n", "1"}, {"210"}},
    {{"--sort", "uid"}, {"100", "200", "210"}},
    {{"--sort", "uid", "--reverse"}, {"200", "100", "210"}},
    {{"--sort", "errors", "--reverse", "-n", "1"}, {"200"}},
    {{"--sort", "title", "--end", "playing"}, {"210", "200"}},
};

TEST_F(Selection, OfPlaybacks) {
    for (const auto& [options, playbacks] : kPlaybacks) {
        EXPECT_EQ(Playbacks(options), playbacks) << testing::PrintToString(options);
    }
}

// As the key figures count them: by the reason, or by the position.
TEST_F(Selection, OfCompletedPlaybacks) {
    const Step begin[] = {{0, TY_EVENT_START}, {1, TY_EVENT_RENDER_START}};
    const std::pair<const char*, std::vector<Step>> endings[] = {
        {"told", {{5, TY_EVENT_STOP, 0, TY_STOP_END_OF_CONTENT}}},
        {"near", {{2, TY_EVENT_PLAYBACK_TIME, 6'600'000}, {5, TY_EVENT_STOP, 6'600'000}}},
        {"still playing", {{2, TY_EVENT_PLAYBACK_TIME, 6'600'000}}},
        {"left", {{5, TY_EVENT_STOP, 0, TY_STOP_USER}}}};
    for (const auto& [pPlayback, ending] : endings) {
        std::vector<Step> steps(std::begin(begin), std::end(begin));
        steps.insert(steps.end(), ending.begin(), ending.end());
        Store({.playback = pPlayback}, steps);
    }
    EXPECT_EQ(Playbacks({"--end", "completed"}), (Words{"near", "told"}));
    EXPECT_EQ(Playbacks({"--end", "completed,exited"}), (Words{"near", "told", "100"}));
    EXPECT_EQ(RunForJson({"kpi"}).at(0).at("completed"), 2);
}

TEST_F(Selection, OfAPlaybackTakesItsBeginning) {
    for (const char* pCommand : {"records", "export"}) {
        EXPECT_THAT(Run({pCommand, "--playback", "20", "--format", "csv"}).out,
                    testing::HasSubstr(",200,"));
        const Result several = Run({pCommand, "--playback", "2", "--format", "csv"});
        EXPECT_EQ(several.code, 2);
        EXPECT_EQ(several.out, "");
        EXPECT_EQ(several.err, "tallyra: several playbacks begin with 2:\n  200\n  210\n");
    }
    EXPECT_EQ(Run({"records", "--playback", "9"}).err, "tallyra: no records match\n");
}

TEST_F(Selection, OfWhatDoesNotExistIsRefused) {
    const std::pair<Words, std::string> wrong[] = {
        {{"records", "--code", "START,NOTHING"}, "--code: not an event: NOTHING"},
        {{"records", "--network", "radio"}, "--network: not a network: radio"},
        {{"records", "--sort", "sender"}, "--sort: no column sender; one of id, arrival, time"},
        {{"records", "--sort", "id", "-f"}, "--sort"},
        {{"records", "--uid", "root"}, "--uid"},
        {{"playbacks", "--end", "stopped,begun"}, "--end: not a way to end: begun"},
        {{"playbacks", "--sort", "url"}, "--sort: no column url; one of start, application"}};
    for (const auto& [command, text] : wrong) {
        const Result result = Run(command);
        EXPECT_EQ(result.code, 2) << testing::PrintToString(command);
        EXPECT_THAT(result.err, HasSubstr(text));
    }
}

// The playback whose timeline is shown.
std::string Shown(const Result& result) {
    return result.code == 0 ? LinesOf(result.out).at(0) : result.err;
}

TEST_F(Selection, OfOnePlaybackByTheBeginningOfItsIdentifier) {
    EXPECT_EQ(Shown(Run({"show", "1"})), "playback     100");
    EXPECT_EQ(Shown(Run({"show", "20"})), "playback     200");
    EXPECT_EQ(Run({"show", "2"}).code, 2);
    EXPECT_EQ(Run({"show", "2"}).err, "tallyra: several playbacks begin with 2:\n  200\n  210\n");
    EXPECT_EQ(Run({"show", "3"}).code, 3);
    Send("20", "Whole", 1000, 0, {{0, TY_EVENT_START}});
    EXPECT_EQ(Shown(Run({"show", "20"})), "playback     20");
    for (int i = 0; i < 20; ++i) {
        Send("5" + std::to_string(i), "Many", 1000, 0, {{0, TY_EVENT_START}});
    }
    const auto lines = LinesOf(Run({"show", "5"}).err);
    ASSERT_EQ(lines.size(), 12U);
    EXPECT_EQ(lines.back(), "  ...");
}

TEST_F(Selection, OfTheLastPlayback) {
    Store({"org.example.tv", "300", "Sport", "u", ":1.9"}, {{0, TY_EVENT_START}});
    EXPECT_EQ(Shown(Run({"show", "--last"})), "playback     300");
    EXPECT_EQ(Shown(Run({"show", "--last", "--application", "org.example.player"})),
              "playback     210");
    const Result none = Run({"show", "--last", "--application", "org.example.none"});
    EXPECT_EQ(none.code, 3);
    EXPECT_EQ(none.err, "tallyra: no playbacks match\n");
    EXPECT_EQ(Run({"show", "--last", "200"}).code, 2);
    EXPECT_EQ(Run({"show", "--application", "a", "200"}).code, 2);
}

TEST_F(Selection, OfPlaybacksCutsLongUrlsInTheirHeadUnlessTold) {
    const std::string url = "https://cdn.example/" + std::string(500, 'u');
    Store({.playback = "400", .url = url}, {{0, TY_EVENT_START}});
    const std::string cut = LinesOf(Run({"show", "400"}).out).at(3);
    EXPECT_EQ(cut, "url          " + url.substr(0, 99) + "…");
    EXPECT_EQ(LinesOf(Run({"show", "400", "--full"}).out).at(3), "url          " + url);
}

}  // namespace
