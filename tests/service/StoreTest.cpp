// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStore.h"

#include "StoreFixture.h"
#include "TYBatchWriter.h"
#include "TYRecordImage.h"

using testing::ElementsAre;

namespace {

constexpr int kUnknownCode = 77;

class Store : public CStoreTest {
  protected:
    static TYBatch From(const char* pName, const std::string& playback = "p1") {
        TYBatch batch = BatchOf(playback);
        batch.sender.name = pName;
        return batch;
    }

    CTYStore m_Store{m_File};
};

TEST_F(Store, HasABatchInTheFileOnceAddReturns) {
    m_Store.Add(MakeBatch({MakeRecord(TY_EVENT_START), MakeRecord(TY_EVENT_RENDER_START),
                           MakeRecord(TY_EVENT_STOP)}));
    EXPECT_THAT(Column("SELECT event FROM records ORDER BY id"), ElementsAre("1", "6", "2"));
    EXPECT_THAT(Column("PRAGMA journal_mode"), ElementsAre("wal"));
}

TEST_F(Store, AddsABatchWholeOrNotAtAll) {
    m_Store.Add(BatchOf("before"));
    Execute(
        "CREATE TRIGGER fail BEFORE INSERT ON entries WHEN NEW.event = 77 "
        "BEGIN SELECT RAISE(ABORT, 'no'); END");
    TYBatch batch = MakeBatch({MakeRecord(TY_EVENT_START, "new"), MakeRecord(kUnknownCode)});
    batch.sender.name = ":1.2";
    const TYBatch known =
        MakeBatch({MakeRecord(TY_EVENT_STOP, "before"), MakeRecord(kUnknownCode)});
    EXPECT_THROW(m_Store.Add(batch), CTYDatabaseError);
    EXPECT_THROW(m_Store.Add(known), CTYDatabaseError);
    for (const char* pTable : {"senders", "playbacks", "contexts", "entries", "runs"}) {
        EXPECT_EQ(Number("SELECT count(*) FROM " + std::string(pTable)), 1) << pTable;
    }
    Execute("DROP TRIGGER fail");
    m_Store.Add(batch);
    m_Store.Add(BatchOf("before"));
    EXPECT_THAT(Column("SELECT playback_id FROM records ORDER BY id"),
                ElementsAre("before", "new", "p1", "before"));
}

TEST_F(Store, KeepsEveryByteOfAnImage) {
    std::string counting(4800, '\0');
    for (std::size_t i = 0; i < counting.size(); ++i) {
        counting[i] = static_cast<char>(i * 7);
    }
    for (const std::string& image : {counting, std::string(4800, '\xff')}) {
        m_Store.Add(MakeBatch({*RecordFromImage(image)}));
        const std::string last = " FROM records ORDER BY id DESC LIMIT 1";
        const auto record = RecordFromCommonPart(Column("SELECT common" + last).at(0));
        const std::string_view again = ImageOf(record.value());
        EXPECT_EQ(again.substr(0, 92), image.substr(0, 92));
        EXPECT_EQ(again.substr(104, 4688), image.substr(104, 4688));
        const auto byte = [&](std::size_t i) {
            return std::int64_t{static_cast<unsigned char>(image[i])};
        };
        EXPECT_EQ(Number("SELECT padding" + last), byte(93) | byte(94) << 8 | byte(95) << 16);
    }
    EXPECT_THAT(Column("SELECT player_id || ' ' || network_type || ' ' || event || ' ' || param1 "
                       "|| ' ' || time_nsec || ' ' || length(playback_id) || ' ' || length(genre) "
                       "|| ' ' || length(custom_info) FROM records WHERE id = 2"),
                ElementsAre("-1 255 255 -1 -1 25 68 4096"));
}

TEST_F(Store, HasNullForAMissingUrl) {
    TYBatch batch = MakeBatch(std::vector<TYMediaData>(3, MakeRecord(TY_EVENT_START)));
    batch.urls = {"a", std::nullopt, ""};
    m_Store.Add(batch);
    EXPECT_THAT(Column("SELECT coalesce('<' || url || '>', 'none') FROM records ORDER BY id"),
                ElementsAre("<a>", "none", "<>"));
}

TEST_F(Store, HasASenderForEachConnection) {
    TYBatch unknown = From(":1.2");
    unknown.sender = {"bus", ":1.2", std::nullopt, std::nullopt};
    TYBatch afterRestart = BatchOf("p1");
    afterRestart.sender = {"another bus", ":1.1", 1000, 5};
    m_Store.Add(BatchOf("p1"));
    m_Store.Add(unknown);
    CTYStore(m_File).Add(afterRestart);
    EXPECT_THAT(Column("SELECT bus_name || ' ' || coalesce(uid, '?') || ' ' || coalesce(pid, '?') "
                       "FROM records ORDER BY id"),
                ElementsAre(":1.1 1000 4711", ":1.2 ? ?", ":1.1 1000 5"));
}

TEST_F(Store, KeepsPlaybacksOfTwoSendersApart) {
    const char* pFirst =
        "SELECT hex(common) || event || url || bus_name || arrival FROM records WHERE id = 1";
    m_Store.Add(BatchOf("p1"));
    const auto before = Column(pFirst);
    TYBatch other = MakeBatch({MakeRecord(TY_EVENT_START), MakeRecord(TY_EVENT_STOP)});
    other.sender.name = ":1.2";
    m_Store.Add(other);
    // The store continues a playback after it was opened again.
    CTYStore(m_File).Add(BatchOf("p1", 2000));
    EXPECT_THAT(Column("SELECT records || ' ' || first_arrival || ' ' || last_arrival "
                       "|| ' ' || coalesce(ended_sec, '-') FROM playbacks ORDER BY id"),
                ElementsAre("2 1000 2000 -", "2 1000 1000 0"));
    EXPECT_EQ(Column(pFirst), before);
}

TEST_F(Store, FindsASenderThatHasLeftTheCache) {
    for (int i = 0; i < 1100; ++i) {
        m_Store.Add(From((":2." + std::to_string(i)).c_str()));
    }
    m_Store.Add(From(":2.0"));
    EXPECT_EQ(Number("SELECT count(*) FROM playbacks"), 1100);
    EXPECT_EQ(Number("SELECT records FROM playbacks WHERE id = 1"), 2);
}

TEST_F(Store, SharesAContextBetweenRecordsOfEqualContent) {
    for (int i = 0; i < 10; ++i) {
        m_Store.Add(MakeBatch(
            {MakeRecord(TY_EVENT_PLAYBACK_TIME, "p1", i), MakeRecord(TY_EVENT_SEEK, "p1", i)}));
    }
    EXPECT_EQ(Number("SELECT count(*) FROM contexts"), 1);
    EXPECT_EQ(Number("SELECT count(*) FROM entries"), 20);
}

TEST_F(Store, KeepsAlternatingContentsApart) {
    std::vector<TYMediaData> records;
    for (int i = 0; i < 30; ++i) {
        records.push_back(MakeRecord(TY_EVENT_PLAYBACK_TIME, "p1", i % 10));
        CopyText(records.back().content.title, std::to_string(i % 10).c_str());
    }
    m_Store.Add(MakeBatch(records));
    EXPECT_EQ(Number("SELECT count(*) FROM records WHERE title = param1"), 30);
}

TEST_F(Store, HasTheSameRecordsInTheOrderOfArrivalInBothViews) {
    std::vector<std::string> expected;
    for (int i = 0; i < 5; ++i) {
        std::vector<TYMediaData> records;
        for (int k = 0; k < 30; ++k) {
            const std::string playback = std::to_string(k / 14 % 2);
            records.push_back(MakeRecord(TY_EVENT_PLAYBACK_TIME, playback, i, k));
            expected.push_back(std::to_string(expected.size() + 1) + ' ' + std::to_string(100 + i) +
                               ' ' + playback + ' ' + std::to_string(i) + ' ' + std::to_string(k) +
                               " film.mp4 " + std::to_string(1 + k / 14 % 2));
        }
        m_Store.Add(MakeBatch(records, 100 + i));
    }
    for (const std::string view : {"records", "records_by_playback"}) {
        EXPECT_EQ(Column("SELECT id || ' ' || arrival || ' ' || playback_id || ' ' || param1 || "
                         "' ' || param2 || ' ' || url || ' ' || playback FROM " +
                         view + " ORDER BY id"),
                  expected);
    }
}

TYMediaData At(int event, std::int32_t sec) {
    TYMediaData record = MakeRecord(event);
    record.time.sec = sec;
    return record;
}

constexpr const char* kTotals =
    "SELECT (context IS NULL) || ' ' || coalesce(started_sec, '-') || ' ' || coalesce(ended_sec, "
    "'-') || ' ' || "
    "coalesce(startup_ms, '-') || ' ' || records || ' ' || watched_ms || ' ' || stalls || ' ' || "
    "stalled_ms || ' ' || errors FROM playbacks";

// The batches of a playback, and its row. A time without a record is null.
std::vector<std::pair<std::vector<TYBatch>, const char*>> TotalsCases() {
    const auto with = [](int event, int param1 = 0, int param2 = 0) {
        return MakeRecord(event, "p1", param1, param2);
    };
    return {{{MakeBatch({At(TY_EVENT_START, 100), with(TY_EVENT_START_UP_TIME, 900),
                         with(TY_EVENT_BUFFERING_START), with(TY_EVENT_BUFFERING_TIME, 300),
                         with(TY_EVENT_PLAYING_TIME, 0, 5000)}),
              MakeBatch({with(TY_EVENT_BUFFERING_TIME, 200), with(TY_EVENT_PLAYING_TIME, 0, 1000),
                         with(TY_ERROR_BUFFERING_MISMATCH), At(TY_EVENT_STOP, 160)})},
             "0 100 160 900 9 6000 2 500 1"},
            {{MakeBatch({with(TY_EVENT_PLAYBACK_TIME)})}, "1 - - - 1 0 0 0 0"},
            {{MakeBatch({At(TY_EVENT_START, 10), At(TY_EVENT_START, 20), At(TY_EVENT_STOP, 30)}),
              MakeBatch({At(TY_EVENT_START, 40), At(TY_EVENT_STOP, 50)})},
             "0 10 50 - 5 0 0 0 0"},
            {{MakeBatch({with(TY_EVENT_PLAYING_TIME, 0, -5), with(TY_EVENT_BUFFERING_TIME, -5)})},
             "1 - - - 2 0 1 0 0"}};
}

TEST_F(Store, AddsUpTheRecordsOfAPlayback) {
    for (const auto& [batches, pTotals] : TotalsCases()) {
        CTYStore store(m_Folder.Path() / pTotals);
        for (const TYBatch& batch : batches) {
            store.Add(batch);
        }
        EXPECT_THAT(CFileReader(m_Folder.Path() / pTotals).Column(kTotals), ElementsAre(pTotals));
    }
}

TEST_F(Store, TellsSendersOfTwoBusesApart) {
    TYBatch other = BatchOf("p1");
    other.sender.bus = "another bus";
    m_Store.Add(BatchOf("p1"));
    m_Store.Add(other);
    m_Store.Add(BatchOf("p1"));
    EXPECT_THAT(Column("SELECT s.bus || ' ' || p.records FROM playbacks p JOIN senders s ON s.id = "
                       "p.sender ORDER BY s.id"),
                ElementsAre("bus 2", "another bus 1"));
}

TEST_F(Store, CutsALongUrlBetweenTwoCharacters) {
    constexpr std::size_t kMost = CTYBatchWriter::kMaxUrlBytes;
    const struct {
        std::string url;
        std::size_t kept;
    } cases[] = {{std::string(kMost, 'u'), kMost},
                 {std::string(kMost + 1, 'u'), kMost},
                 {std::string(kMost - 1, 'u') + "\u00e9", kMost - 1},
                 {std::string(kMost - 3, 'u') + "\U0001f3b5" + std::string(99, 'u'), kMost - 3},
                 {std::string(16 << 20, 'u'), kMost}};
    for (const auto& one : cases) {
        TYBatch batch = MakeBatch(std::vector<TYMediaData>(2, MakeRecord(TY_EVENT_START)));
        batch.urls = {one.url, one.url};
        m_Store.Add(batch);
        const std::string cut = std::to_string(one.url.size() - one.kept);
        EXPECT_THAT(Column("SELECT url_cut FROM records ORDER BY id DESC LIMIT 2"),
                    ElementsAre(cut, cut));
        EXPECT_EQ(Column("SELECT url FROM contexts ORDER BY id DESC LIMIT 1").at(0),
                  one.url.substr(0, one.kept));
    }
    EXPECT_EQ(Number("SELECT count(*) FROM contexts"), 5);
}

TEST_F(Store, KeepsNotMoreThanFourMebibytesInItsCache) {
    CTYDatabase database(m_File, CTYDatabase::Mode::READ_WRITE);
    CTYBatchWriter writer(database);
    CTYTransaction transaction(database);
    std::size_t most = 0;
    for (int i = 0; i < 400; ++i) {
        TYBatch batch = From((":2." + std::to_string(i / 4)).c_str());
        batch.urls[0] = std::to_string(i) + std::string(1 << 20, 'u');
        writer.Write(batch, {});
        most = std::max(most, writer.CachedBytes());
    }
    EXPECT_GT(most, 3U << 20);
    EXPECT_LE(most, (4U << 20) + 4 * (CTYBatchWriter::kMaxUrlBytes + sizeof(TYMediaData)));
    writer.Forget();
    EXPECT_EQ(writer.CachedBytes(), 0U);
}

TEST_F(Store, KnowsWhatAnotherConnectionChanged) {
    const auto policy = [this](const char* pApplication) {
        const TYPolicy found = m_Store.Policy(pApplication);
        return std::to_string(found.value) + (found.keepQueries ? " queries" : "") +
               (found.Admits(1000) ? " 1000" : "") + (found.Admits({}) ? " unknown" : "");
    };
    const std::pair<const char*, std::array<const char*, 2>> steps[] = {
        {"SELECT 1", {"1 1000 unknown", "1 1000 unknown"}},
        {"INSERT INTO policies VALUES('*', 0, 0, 1)",
         {"0 queries 1000 unknown", "0 queries 1000 unknown"}},
        {"INSERT INTO bindings VALUES('a', 7, 0)", {"1", "0 queries 1000 unknown"}},
        {"INSERT INTO bindings VALUES('a', 1000, 0), ('*', 7, 0)", {"1 1000", "0 queries"}},
        {"INSERT INTO policies VALUES('b', 5, 0, 0)", {"1 1000", "5 1000 unknown"}},
        {"DELETE FROM bindings", {"0 queries 1000 unknown", "5 1000 unknown"}}};
    for (const auto& [pChange, expected] : steps) {
        SCOPED_TRACE(pChange);
        Execute(pChange);
        EXPECT_EQ(policy("a"), expected[0]);
        EXPECT_EQ(policy("b"), expected[1]);
    }
}

TEST_F(Store, CountsAnArrivalInTheFutureAsNow) {
    const std::int64_t now = SystemTimes().wall;
    const std::int64_t hour = CFakeTimes::kHour;
    const auto last = [this] { return Number("SELECT last_arrival FROM playbacks"); };
    m_Store.Add(BatchOf("p", now + 960 * hour));
    EXPECT_EQ(last(), now + 960 * hour);
    m_Store.Add(BatchOf("p", now - hour));
    EXPECT_NEAR(static_cast<double>(last() - now), 0, 60e9);
    EXPECT_EQ(Number("SELECT last_entry FROM playbacks"), 2);
}

TEST_F(Store, IsAStoreFromItsFirstPageOn) {
    const std::filesystem::path file = m_Folder.Path() / "theirs.db";
    CTYDatabase(file, CTYDatabase::Mode::READ_WRITE).Execute("CREATE TABLE theirs(a)");
    const auto before = std::filesystem::last_write_time(file);
    EXPECT_THROW(CTYStore{file}, CTYDatabaseError);
    EXPECT_EQ(std::filesystem::last_write_time(file), before);
    EXPECT_EQ(CFileReader(file).Column("PRAGMA journal_mode").at(0), "delete");
    std::string head(100, '\0');
    std::ifstream(m_File).read(head.data(), 100);
    EXPECT_EQ(head.substr(68, 4), "TYLA") << "while all commits may be in the log";
}

}  // namespace
