// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

class CRecordsTest : public CStoreTest {
  protected:
    // Four records, ten seconds apart in their arrival.
    void SetUp() override {
        Store(Script{"org.example.tv", "100", "News", "https://a/1", ":1.1"}, {{0, 1}, {10, 4, 7}},
              100 * kSecond);
        Store(Script{"org.example.radio", "200", "Jazz", "https://b/2", ":1.2"}, {{20, 1}},
              110 * kSecond);
        Store(Script{"org.example.tv", "300", "Sport", "https://a/3", ":1.1"}, {{30, 204, 5, 6}},
              120 * kSecond);
    }

    std::vector<int> Ids(std::vector<std::string> filter) const {
        filter.insert(filter.begin(), "records");
        return Each<int>(RunForJson(filter), "id");
    }
};

TEST_F(CRecordsTest, AreAllPrintedInTheirOrder) {
    EXPECT_THAT(Ids({}), ElementsAre(1, 2, 3, 4));
}

TEST_F(CRecordsTest, AreFilteredByApplication) {
    EXPECT_THAT(Ids({"--application", "org.example.tv"}), ElementsAre(1, 2, 4));
    EXPECT_THAT(Ids({"--application", "org.example"}), SizeIs(0));
}

TEST_F(CRecordsTest, AreFilteredByPlayback) {
    EXPECT_THAT(Ids({"--playback", "200"}), ElementsAre(3));
}

TEST_F(CRecordsTest, AreFilteredByCodeAndByItsName) {
    EXPECT_THAT(Ids({"--code", "1"}), ElementsAre(1, 3));
    EXPECT_THAT(Ids({"--code", "buffering_start"}), ElementsAre(2));
    EXPECT_THAT(Ids({"--code", "PLAYBACK_TIME_JUMP"}), ElementsAre(4));
}

TEST_F(CRecordsTest, AreFilteredByArrivalFromSinceToBeforeUntil) {
    EXPECT_THAT(Ids({"--since", "@110"}), ElementsAre(3, 4));
    EXPECT_THAT(Ids({"--until", "@110"}), ElementsAre(1, 2));
    EXPECT_THAT(Ids({"--since", "@110", "--until", "@120"}), ElementsAre(3));
    EXPECT_THAT(Ids({"--since", "1970-01-01T00:02:00Z"}), ElementsAre(4));
    EXPECT_THAT(Ids({"--since", "1h"}), SizeIs(0));
}

TEST_F(CRecordsTest, AreTheNewestWhenThereAreMoreThanTheLimit) {
    EXPECT_THAT(Ids({"--limit", "2"}), ElementsAre(3, 4));
    EXPECT_THAT(Ids({"--limit", "0"}), SizeIs(0));
    EXPECT_THAT(Ids({"--limit", "-1"}), ElementsAre(1, 2, 3, 4));
}

TEST_F(CRecordsTest, PassAllFiltersAtOnce) {
    EXPECT_THAT(Ids({"--application", "org.example.tv", "--playback", "100", "--code", "4",
                     "--since", "@100", "--until", "@101", "--limit", "5"}),
                ElementsAre(2));
}

TEST_F(CRecordsTest, HaveEveryFieldInJson) {
    const auto row = RunForJson({"records", "--code", "204"}).at(0);
    const auto expected = nlohmann::json::parse(R"({
        "id": 4, "arrival": 120000000000, "bus_name": ":1.1", "uid": 1000, "pid": 4242,
        "player_id": 1, "network": 2, "playback_id": "300", "service_version": "2.4.1",
        "service_id": "org.example.tv", "event": 204, "param1": 5, "param2": 6,
        "duration": 6912000, "url": "https://a/3", "drm_type": 0, "content_type": 0,
        "channel_id": "", "title": "Sport", "genre": "", "custom_info": "",
        "time_sec": 1795234190, "time_nsec": 30000000})");
    EXPECT_EQ(row, expected);
}

TEST_F(CRecordsTest, HaveATableForPeople) {
    const auto lines = LinesOf(Run({"records", "--playback", "300"}).out);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[0],
              "id  time                      application     playback  event               param1"
              "  param2  network  url");
    EXPECT_EQ(lines[1],
              " 4  2026-11-21T04:09:50.030Z  org.example.tv  300       PLAYBACK_TIME_JUMP       5"
              "       6  wifi     https://a/3");
}

TEST_F(CRecordsTest, KeepTheirTextsInCsv) {
    const std::string url = "https://c/a,b\"c\r\nd\ne";
    Store(Script{"org.example.csv", "400", " a, \"b\" ", url, ":1.3"}, {{0, 1}}, 130 * kSecond);
    const Result result = Run({"records", "--application", "org.example.csv", "--format", "csv"});

    EXPECT_THAT(result.out, HasSubstr(",\"https://c/a,b\"\"c\r\nd\ne\","));
    const auto rows = ParseCsv(result.out);
    ASSERT_THAT(rows, SizeIs(2));
    EXPECT_EQ(rows[0][14], "url");
    EXPECT_EQ(rows[1][14], url);
    EXPECT_EQ(rows[0][18], "title");
    EXPECT_EQ(rows[1][18], " a, \"b\" ");
}

TEST_F(CRecordsTest, WithoutUrlHaveNull) {
    TYBatch batch;
    batch.sender = {"8f1b", ":1.9", std::nullopt, std::nullopt};
    batch.records = {RecordOf({}, {0, 1})};
    batch.urls = {std::nullopt};
    batch.arrival = 140 * kSecond;
    CTYStore(Db()).Add(batch);

    const auto row = RunForJson({"records", "--since", "@140"}).at(0);
    EXPECT_TRUE(row.at("url").is_null());
    EXPECT_TRUE(row.at("uid").is_null());
}

TEST_F(CRecordsTest, OfAnEmptyStoreAreAnEmptyArray) {
    Damage("DELETE FROM entries");
    EXPECT_EQ(Run({"records", "--format", "json"}).out, "[]\n");
    EXPECT_EQ(Run({"records"}).out, "");
    EXPECT_THAT(LinesOf(Run({"records", "--format", "csv"}).out), SizeIs(1));
}

}  // namespace
