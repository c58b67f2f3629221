// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStore.h"

#include "StoreFixture.h"
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

}  // namespace
