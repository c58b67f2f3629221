// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"
#include "TYLosses.h"

namespace {

using testing::HasSubstr;

// The values that a command printed as rows of "what", "of" or "application", and "value".
std::string ValueOf(const nlohmann::json& rows, const char* pQualifier, const std::string& what,
                    const nlohmann::json& qualifier = nullptr) {
    for (const auto& row : rows) {
        if (row.at("what") == what && row.at(pQualifier) == qualifier) {
            return row.at("value").dump();
        }
    }
    return "absent";
}

class Status : public CCommandTest {
  protected:
    void Lose(TYLossReason reason, const std::string& application, std::int64_t records,
              std::int64_t at = WallClockNow()) {
        CTYLosses losses;
        losses.Count(reason, application, records);
        CTYDatabase database(Db(), CTYDatabase::Mode::READ_WRITE);
        WriteLosses(database, losses, at);
    }
    std::string StatusOf(const std::string& what, const nlohmann::json& of = nullptr) const {
        return ValueOf(RunForJson({"status"}), "of", what, of);
    }
    std::string StatsOf(const std::string& what, const nlohmann::json& of = nullptr) const {
        return ValueOf(RunForJson({"stats"}), "application", what, of);
    }
};

TEST_F(Status, DescribesTheStore) {
    Store({}, WholePlayback(), 100 * kSecond);
    CTYStore service(Db());
    service.Add(BatchOf("p1", 200 * kSecond));
    EXPECT_EQ(StatusOf("store"), '"' + Db() + '"');
    EXPECT_EQ(StatusOf("epoch"), '"' + service.Epoch() + '"');
    EXPECT_EQ(StatusOf("schema_version"), std::to_string(Number("PRAGMA user_version")));
    EXPECT_EQ(StatusOf("records"), "20");
    EXPECT_EQ(StatusOf("newest_arrival"), "\"1970-01-01T00:03:20.000Z\"");
    EXPECT_EQ(StatusOf("database_bytes"),
              std::to_string(Number("PRAGMA page_size") * Number("PRAGMA page_count")));
    EXPECT_EQ(StatusOf("log_bytes"), std::to_string(std::filesystem::file_size(Db() + "-wal")));
    EXPECT_NE(StatusOf("log_bytes"), "0");
    std::filesystem::create_symlink(Db(), File("link.db"));
    const Result result =
        RunProgram({TALLYRA_COMMAND, "status", "--format", "json", "--db", File("link.db")});
    EXPECT_EQ(ValueOf(nlohmann::json::parse(result.out), "of", "log_bytes", nullptr),
              StatusOf("log_bytes"));
}

TEST_F(Status, TellsWhoHoldsHowManyBytes) {
    for (const std::optional<std::int64_t> uid : {std::optional<std::int64_t>(1003), {}}) {
        TYBatch batch = BatchOf("p1");
        batch.sender = {"bus", uid ? ":1.1" : ":1.2", uid, {}};
        CTYStore(Db()).Add(batch);
    }
    EXPECT_EQ(StatusOf("bytes_held_by_user", "1003"),
              std::to_string(Number("SELECT bytes FROM holdings WHERE uid = 1003")));
    EXPECT_EQ(StatusOf("bytes_held_by_user", "unknown"),
              std::to_string(Number("SELECT bytes FROM holdings WHERE uid = -1")));
}

TEST_F(Status, ListsTheLossesOfADay) {
    Store({}, WholePlayback());
    Lose(TYLossReason::RATE, "org.a", 5);
    Lose(TYLossReason::RATE, "", 2);
    Lose(TYLossReason::FULL, "", 7, WallClockNow() - 2 * 86'400 * kSecond);
    EXPECT_EQ(StatusOf("records_lost_in_a_day", "rate"), "7");
    EXPECT_EQ(StatusOf("records_lost_in_a_day"), "7");
    EXPECT_EQ(StatusOf("records_lost_in_a_day", "full"), "absent");
    EXPECT_THAT(Run({"status"}).out, HasSubstr("\nrecords_lost_in_a_day  7"));
}

TEST_F(Status, OfAnEmptyStoreHasNoNewestArrivalAndNoLosses) {
    const CTYStore service(Db());
    EXPECT_EQ(StatusOf("records_lost_in_a_day"), "0");
    EXPECT_EQ(StatusOf("records"), "0");
    EXPECT_EQ(StatusOf("newest_arrival"), "null");
}

TEST_F(Status, TellsHowMuchIsForwarded) {
    Store({}, WholePlayback());
    EXPECT_EQ(StatusOf("forwarded_stored_up_to"), "absent");
    Execute("INSERT INTO forwarding(id, stored, sent) VALUES(1, 5, 12)");
    EXPECT_EQ(StatusOf("forwarded_stored_up_to"), "5");
    EXPECT_EQ(StatusOf("forwarded_sent_up_to"), "12");
    EXPECT_EQ(StatusOf("forwarded_records_to_send"), "7");
    EXPECT_THAT(Run({"status"}).out, HasSubstr("\nforwarded_records_to_send  7\n"));
    Execute("UPDATE forwarding SET stored = 'much', sent = 1e300");
    EXPECT_EQ(StatusOf("forwarded_stored_up_to"), "0");
    EXPECT_EQ(StatusOf("forwarded_records_to_send"), "0");
}

TEST_F(Status, LeavesLossesByReasonAndApplicationToStats) {
    Store({}, WholePlayback());
    for (int i = 0; i < static_cast<int>(TYLossReason::COUNT); ++i) {
        Lose(static_cast<TYLossReason>(i), "org.a", i + 1, 100 * kSecond);
        Lose(static_cast<TYLossReason>(i), "", 100);
    }
    for (int i = 0; i < static_cast<int>(TYLossReason::COUNT); ++i) {
        const std::string what =
            std::string("records_lost_") + TextOf(static_cast<TYLossReason>(i));
        EXPECT_EQ(StatsOf(what), std::to_string(101 + i));
        EXPECT_EQ(StatsOf(what, "org.a"), std::to_string(i + 1));
    }
    // Of these, age and room are what the service itself dropped.
    EXPECT_EQ(StatsOf("records_dropped"), std::to_string(2 * 100 + 9 + 10));
}

TEST_F(Status, CountsCutUrlsInStats) {
    Store({.url = std::string(70'000, 'u')}, {{0, TY_EVENT_START}});
    Store({.playback = "2"}, {{0, TY_EVENT_START}});
    EXPECT_EQ(StatsOf("urls_cut"), "1");
    EXPECT_EQ(RunForJson({"records"}).at(0).at("url_cut"), 70'000 - 65'536);
}

class Check : public CCommandTest {
  protected:
    void SetUp() override {
        Store({}, WholePlayback());
        Store({.playback = "2"}, {{0, TY_EVENT_START}});
        Execute(
            "INSERT INTO forwarding(id, stored, sent) VALUES(1, 4, 10);"
            "INSERT INTO forwarding_batches(first, last, after) VALUES(5, 8, 4), (9, 12, 8);"
            "INSERT INTO origins(first, last, epoch, origin) VALUES(7, 8, 'e', 1), (9, 20, 'e', "
            "100)");
    }
};

const struct {
    const char* pDamage;
    const char* pFinding;
} kDamages[] = {
    {"DELETE FROM entries WHERE id = 3", "runs with missing records: 1, the first is 1"},
    {"UPDATE runs SET first = 2 WHERE first = 1", "records without a run: 1, the first is 1"},
    {"UPDATE entries SET context = 77 WHERE id = 4",
     "records without a context: 1, the first is 4"},
    {"UPDATE entries SET context = 2 WHERE id = 4",
     "records with another context than their run: 1, the first is 4"},
    {"UPDATE entries SET param2 = 7 WHERE id = 8",
     "playbacks with totals that differ from their records: 1, the first is 1"},
    {"UPDATE playbacks SET stalled_ms = 1 WHERE id = 1",
     "playbacks with totals that differ from their records: 1, the first is 1"},
    {"UPDATE playbacks SET context = 2 WHERE id = 1",
     "playbacks with the context of another: 1, the first is 1"},
    {"UPDATE playbacks SET sender = 9 WHERE id = 2",
     "row 2 of playbacks names a missing row of senders"},
    {"UPDATE holdings SET bytes = bytes + 1", "users with wrong holdings: 1, the first is 1000"},
    {"UPDATE forwarding SET stored = 11",
     "states of forwarding that store more than they sent: 1, the first is 1"},
    {"UPDATE forwarding SET stored = -1",
     "states of forwarding that store more than they sent: 1, the first is 1"},
    {"UPDATE forwarding SET sent = 'all'",
     "states of forwarding that store more than they sent: 1, the first is 1"},
    {"UPDATE forwarding_batches SET last = 9 WHERE first = 5",
     "batches to forward that overlap: 1, the first is 9"},
    {"UPDATE forwarding_batches SET after = 5 WHERE first = 5",
     "batches to forward that overlap: 1, the first is 5"},
    {"UPDATE forwarding_batches SET last = 4 WHERE first = 5",
     "batches to forward that overlap: 1, the first is 5"},
    {"UPDATE origins SET last = 9 WHERE first = 7",
     "origins that do not fit to the records: 1, the first is 9"},
    {"UPDATE origins SET last = 21 WHERE first = 9",
     "origins that do not fit to the records: 1, the first is 9"},
    {"UPDATE origins SET last = 6 WHERE first = 7",
     "origins that do not fit to the records: 1, the first is 7"},
    {"UPDATE origins SET first = 30, last = 31 WHERE first = 7",
     "origins that do not fit to the records: 1, the first is 30"},
    {"UPDATE origins SET first = -3, last = -2 WHERE first = 7",
     "origins that do not fit to the records: 1, the first is -3"},
};

TEST_F(Check, FindsRowsThatContradictEachOther) {
    for (const auto& one : kDamages) {
        SCOPED_TRACE(one.pDamage);
        EXPECT_EQ(Run({"check"}).out, "no damage in 20 records\n");
        Execute(one.pDamage);
        const Result result = Run({"check"});
        EXPECT_EQ(result.code, 1);
        EXPECT_THAT(LinesOf(result.out), testing::Contains(one.pFinding));
        EXPECT_EQ(result.err, "tallyra: " + Db() + " is damaged\n");
        std::filesystem::remove(Db());
        SetUp();
    }
}

TEST_F(Check, FindsViewsThatWereChanged) {
    Execute("DROP VIEW records; CREATE VIEW records AS SELECT 1 AS id");
    Execute("DROP VIEW phases");
    const Result result = Run({"check"});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(LinesOf(result.out),
                testing::UnorderedElementsAre("the view records is missing or was changed",
                                              "the view phases is missing or was changed"));
}

TEST_F(Check, FindsADamagedPage) {
    const auto pages = Number("PRAGMA page_count");
    const auto page = Number("SELECT rootpage FROM sqlite_schema WHERE name = 'runs_by_context'");
    ASSERT_GT(pages, page);
    std::fstream file(Db(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp((page - 1) * Number("PRAGMA page_size") + 3);
    file.write("\x7f\x7f", 2);
    file.close();
    const Result result = Run({"check"});
    EXPECT_EQ(result.code, 1);
    EXPECT_NE(result.out, "");
    EXPECT_EQ(result.err, "tallyra: " + Db() + " is damaged\n");
}

TEST_F(Check, FindsNothingWhileTheServiceStores) {
    CTYStore service(Db());
    std::atomic<bool> done = false;
    auto adding = std::async(std::launch::async, [&] {
        for (int i = 0; !done; ++i) {
            service.Add(BatchOf("p" + std::to_string(i)));
        }
    });
    for (int i = 0; i < 10; ++i) {
        const Result result = Run({"check"});
        EXPECT_EQ(result.code, 0) << result.out;
    }
    done = true;
    adding.get();
}

}  // namespace
