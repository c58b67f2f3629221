// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

#include <gmock/gmock.h>

#include <filesystem>

namespace {

using testing::HasSubstr;

class CStatsTest : public CStoreTest {
  protected:
    // Totals have no application.
    std::int64_t Figure(const std::string& what, const std::string& application = "") const {
        for (const auto& row : RunForJson({"stats"})) {
            const auto& of = row.at("application");
            if (row.at("what") == what &&
                (of.is_null() ? "" : of.get<std::string>()) == application) {
                return row.at("value");
            }
        }
        ADD_FAILURE() << "there is no " << what;
        return -1;
    }
};

TEST_F(CStatsTest, AddUpAllPlaybacks) {
    Store({}, WholePlayback(), NowNs());
    Store(Script{"org.example.tv", "2", "", "u", ":1.8"}, WholePlayback(), NowNs());

    EXPECT_EQ(Figure("records"), 38);
    EXPECT_EQ(Figure("playbacks"), 2);
    EXPECT_EQ(Figure("senders"), 2);
    EXPECT_EQ(Figure("watched_ms"), 480000);
    EXPECT_EQ(Figure("stalls"), 4);
    EXPECT_EQ(Figure("stalled_ms"), 7500);
    EXPECT_EQ(Figure("errors"), 2);
}

TEST_F(CStatsTest, AddUpEachApplication) {
    Store({}, WholePlayback(), NowNs());
    Store(Script{"org.example.tv", "2", "", "u", ":1.8"}, {{0, 1}, {1, 250}}, NowNs());

    EXPECT_EQ(Figure("records", "org.example.player"), 19);
    EXPECT_EQ(Figure("watched_ms", "org.example.player"), 240000);
    EXPECT_EQ(Figure("stalls", "org.example.player"), 2);
    EXPECT_EQ(Figure("playbacks", "org.example.tv"), 1);
    EXPECT_EQ(Figure("errors", "org.example.tv"), 1);
}

TEST_F(CStatsTest, MissNothingInAWholePlayback) {
    Store({}, WholePlayback(), NowNs());
    EXPECT_EQ(Figure("playbacks_without_start"), 0);
    EXPECT_EQ(Figure("playbacks_without_end"), 0);
    EXPECT_EQ(Figure("derived_records_missing"), 0);
    EXPECT_EQ(Figure("playbacks_dropped"), 0);
    EXPECT_EQ(Figure("records_dropped"), 0);
}

TEST_F(CStatsTest, MissAStartAndAnEnd) {
    Store(Script{"org.example.player", "1", "", "u", ":1.7"}, {{0, 1}}, NowNs());
    Store(Script{"org.example.player", "2", "", "u", ":1.7"}, {{0, 2}, {0, 20}}, NowNs());
    Store(Script{"org.example.player", "3", "", "u", ":1.7"}, {{0, 4}}, NowNs());
    EXPECT_EQ(Figure("playbacks_without_start"), 2);
    EXPECT_EQ(Figure("playbacks_without_end"), 2);
}

TEST_F(CStatsTest, MissWhatTheLibraryWouldHaveDerived) {
    Store(Script{"org.example.player", "1", "", "u", ":1.7"}, {{0, 1}, {1, 6}, {2, 8}}, NowNs());
    EXPECT_EQ(Figure("derived_records_missing"), 1);
    Store(Script{"org.example.player", "2", "", "u", ":1.8"}, {{0, 5}, {1, 3}, {2, 2}}, NowNs());
    EXPECT_EQ(Figure("derived_records_missing"), 4);
    // Each of these has what it needs, in the batch behind it.
    Store(Script{"org.example.player", "3", "", "u", ":1.9"}, {{0, 5}}, NowNs());
    Store(Script{"org.example.player", "3", "", "u", ":1.9"}, {{0, 202}, {1, 2}, {1, 20}}, NowNs());
    EXPECT_EQ(Figure("derived_records_missing"), 4);
}

TEST_F(CStatsTest, CountWhatWasDroppedForAge) {
    Store(Script{"org.example.player", "1", "", "u", ":1.7"}, {{0, 1}, {1, 2}}, 100 * kSecond);
    Store(Script{"org.example.player", "2", "", "u", ":1.7"}, {{0, 1}}, NowNs());
    CTYStore(Db(), {std::chrono::hours(1), std::int64_t{1} << 30}).Prune(NowNs());

    EXPECT_EQ(Figure("playbacks_dropped"), 1);
    EXPECT_EQ(Figure("records_dropped"), 2);
    EXPECT_EQ(Figure("records"), 1);
}

TEST_F(CStatsTest, SayHowBigTheStoreIs) {
    Store({}, WholePlayback(), NowNs());
    EXPECT_EQ(Figure("store_bytes"), static_cast<std::int64_t>(std::filesystem::file_size(Db())));
}

TEST_F(CStatsTest, HaveATableAndCsv) {
    Store({}, WholePlayback(), NowNs());
    EXPECT_THAT(Run({"stats"}).out, HasSubstr("org.example.player  watched_ms"));
    const auto rows = ParseCsv(Run({"stats", "--format", "csv"}).out);
    EXPECT_THAT(rows, testing::Contains(testing::ElementsAre("", "records", "19")));
    EXPECT_THAT(rows, testing::Contains(testing::ElementsAre("org.example.player", "errors", "1")));
}

}  // namespace
