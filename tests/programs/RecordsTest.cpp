// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
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

TEST_F(Records, AreSelectedByFilters) {
    const struct {
        std::vector<std::string> filter;
        std::vector<int> ids;
    } cases[] = {
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
    for (const auto& one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.filter));
        std::vector<std::string> command = one.filter;
        command.insert(command.begin(), "records");
        EXPECT_EQ(Each<int>(RunForJson(command), "id"), one.ids);
    }
}

TEST_F(Records, HaveEveryFieldInJson) {
    const auto row = RunForJson({"records", "--playback", "300"}).at(0);
    const auto expected = nlohmann::json::parse(R"({
        "id": 4, "arrival": 120000000000, "bus_name": ":1.1", "uid": 1000, "pid": 4711,
        "player_id": 1, "network": 2, "playback_id": "300", "service_version": "2.4.1",
        "service_id": "org.example.tv", "event": 204, "param1": 5, "param2": 6,
        "duration": 6912000, "url": "https://a/3", "drm_type": 0, "content_type": 0,
        "channel_id": "", "title": "Sport", "genre": "", "custom_info": "",
        "time_sec": 1795234190, "time_nsec": 30000000})");
    EXPECT_EQ(row, expected);
}

TEST_F(Records, HaveATable) {
    const auto lines = LinesOf(Run({"records", "--playback", "300"}).out);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[0],
              "id  time                      application     playback  event               param1"
              "  param2  network  url");
    EXPECT_EQ(lines[1],
              " 4  2026-11-21T04:09:50.030Z  org.example.tv  300       PLAYBACK_TIME_JUMP       5"
              "       6  wifi     https://a/3");
}

TEST_F(Records, KeepTheirTextsInCsv) {
    const std::string url = "https://c/a,b\"c\r\nd\ne";
    Store({"org.example.csv", "400", " a, \"b\" ", url, ":1.3"}, {{0, TY_EVENT_START}});
    const Result result = Run({"records", "--application", "org.example.csv", "--format", "csv"});
    EXPECT_THAT(result.out, HasSubstr(",\"https://c/a,b\"\"c\r\nd\ne\","));
    const auto rows = ParseCsv(result.out);
    ASSERT_THAT(rows, SizeIs(2));
    EXPECT_THAT((std::vector{rows[0][14], rows[1][14]}), ElementsAre("url", url));
    EXPECT_THAT((std::vector{rows[0][18], rows[1][18]}), ElementsAre("title", " a, \"b\" "));
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
    EXPECT_EQ(Run({"records"}).out, "");
    EXPECT_THAT(LinesOf(Run({"records", "--format", "csv"}).out), SizeIs(1));
}

}  // namespace
