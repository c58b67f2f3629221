// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

#include <filesystem>
#include <map>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

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
                {"watched_ms", 240000},
                {"stalls", 2},
                {"stalled_ms", 3750},
                {"errors", 2},
                {"records of SEEK", 1}});
    Expect("org.example.player",
           {{"records", 19}, {"watched_ms", 240000}, {"stalls", 2}, {"errors", 1}});
    Expect("org.example.tv", {{"records", 2}, {"playbacks", 1}, {"errors", 1}});
}

TEST_F(Stats, CountNothingMissingInAWholePlayback) {
    Store({}, WholePlayback());
    Expect("", {{"playbacks_without_start", 0},
                {"playbacks_without_end", 0},
                {"derived_records_missing", 0},
                {"playbacks_dropped", 0},
                {"records_dropped", 0}});
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
    Store(Of("1"), {{0, TY_EVENT_START}, {1, TY_EVENT_STOP}}, 100 * kSecond);
    Store(Of("2"), {{0, TY_EVENT_START}});
    CTYStore(Db(), {std::chrono::hours(1), std::int64_t{1} << 30}).Prune(WallClockNow());
    Expect("", {{"playbacks_dropped", 1}, {"records_dropped", 2}, {"records", 1}});
}

TEST_F(Stats, IncludeTheSizeOfTheStore) {
    Store({}, WholePlayback());
    Expect("", {{"store_bytes", static_cast<std::int64_t>(std::filesystem::file_size(Db()))}});
}

TEST_F(Stats, HaveATableAndCsv) {
    Store({}, WholePlayback());
    EXPECT_THAT(Run({"stats"}).out, HasSubstr("org.example.player  watched_ms"));
    const auto rows = ParseCsv(Run({"stats", "--format", "csv"}).out);
    EXPECT_THAT(rows, Contains(ElementsAre("", "records", "19")));
    EXPECT_THAT(rows, Contains(ElementsAre("org.example.player", "errors", "1")));
}

}  // namespace
