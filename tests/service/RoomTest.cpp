// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Sanitizers.h"
#include "StoreFixture.h"
#include "TYRunDropper.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::int64_t kHour = CFakeTimes::kHour;
constexpr std::int64_t kMany = std::int64_t{1} << 40;
constexpr std::int64_t kMiB = std::int64_t{1} << 20;
constexpr int kFlooder = 2000;

/// Parts of playbacks are dropped, and room is taken from the user that holds most.
class Room : public CStoreTest {
  protected:
    CTYStore& Open(TYStoreLimits limits) {
        m_pStore.reset();
        m_pStore = std::make_unique<CTYStore>(m_File, limits, m_Times.Reader());
        return *m_pStore;
    }
    void PruneAll() {
        while (m_pStore->Prune()) {
        }
    }
    static TYBatch From(std::int64_t uid, const std::string& playback, int records) {
        TYBatch batch = MakeBatch(std::vector<TYMediaData>(
            static_cast<std::size_t>(records), MakeRecord(TY_EVENT_PLAYING_TIME, playback, 0, 10)));
        batch.sender = {"bus", ":1." + std::to_string(uid), uid, 1};
        return batch;
    }
    static TYBatch WithTitle(TYBatch batch, const std::string& title) {
        for (TYMediaData& record : batch.records) {
            CopyText(record.content.title, title.c_str());
        }
        return batch;
    }
    // Playbacks whose totals are not the sums over their entries, and users whose holding is not
    // the sum over their playbacks.
    std::vector<std::string> Wrong() const {
        return Column(
            "SELECT 'playback ' || id FROM playbacks p WHERE "
            "(records, watched_ms, stalls, stalled_ms, errors, last_entry) IS NOT "
            "(SELECT count(*), coalesce(sum(max(param2, 0)) FILTER (WHERE event = 20), 0), "
            "count(*) FILTER (WHERE event = 22), "
            "coalesce(sum(max(param1, 0)) FILTER (WHERE event = 22), 0), "
            "count(*) FILTER (WHERE event >= 200), max(id) "
            "FROM records_by_playback WHERE playback = p.id) "
            "OR bytes <> 300 + records * 40 + (SELECT sum(2 * length(common) + "
            "coalesce(length(CAST(url AS BLOB)), 0)) FROM contexts WHERE playback = p.id) "
            "OR context NOT IN (SELECT id FROM contexts WHERE playback = p.id) "
            "UNION ALL SELECT 'user ' || uid FROM holdings h WHERE bytes IS NOT "
            "(SELECT sum(bytes) FROM playbacks p WHERE p.uid = h.uid) "
            "UNION ALL SELECT 'entry ' || id FROM entries e WHERE NOT EXISTS "
            "(SELECT 1 FROM runs r WHERE e.id BETWEEN first AND last AND r.context = e.context)");
    }

    CFakeTimes m_Times;
    std::unique_ptr<CTYStore> m_pStore;
};

TEST_F(Room, IsTakenFromTheUserThatHoldsMost) {
    CTYStore& store = Open({std::chrono::hours(24), kMiB});
    for (const int uid : {1000, 1001}) {
        store.Add(From(uid, "old" + std::to_string(uid), 36));
    }
    for (int i = 0; i < 40; ++i) {
        TYBatch flood = From(kFlooder, "flood" + std::to_string(i), 1);
        flood.urls[0] = std::string(60'000, 'u');
        store.Add(flood);
        PruneAll();
    }
    EXPECT_EQ(Number("SELECT count(*) FROM records WHERE uid <> 2000"), 72);
    EXPECT_THAT(Column("SELECT playback_id FROM playbacks WHERE uid = 2000 ORDER BY id DESC "
                       "LIMIT 1"),
                ElementsAre("flood39"));
    EXPECT_LT(Number("SELECT count(*) FROM playbacks WHERE uid = 2000"), 20);
    EXPECT_THAT(Wrong(), IsEmpty());
}

TEST_F(Room, IsTakenFromTheOldestPlaybackOfAUser) {
    CTYStore& store = Open({std::chrono::hours(24), kMiB});
    for (int i = 0; i < 400; ++i) {
        // The playback "fed" is the first one, but its last record is always young.
        store.Add(From(1000, "fed", 1));
        store.Add(From(1000, "p" + std::to_string(i), 100));
    }
    PruneAll();
    EXPECT_EQ(Number("SELECT records FROM playbacks WHERE playback_id = 'fed'"), 400);
    EXPECT_EQ(Number("SELECT count(*) FROM playbacks WHERE playback_id = 'p0'"), 0);
    EXPECT_EQ(Number("SELECT count(*) FROM playbacks WHERE playback_id = 'p399'"), 1);
}

TEST_F(Room, KeepsTheNewestRecordsOfAnEndlessPlayback) {
    CTYStore& store = Open({std::chrono::hours(24), kMiB});
    constexpr int kRecords = 60'000;
    for (int i = 0; i < kRecords / 100; ++i) {
        // Its contexts alternate, so none of them is the oldest as a whole.
        store.Add(WithTitle(From(1000, "endless", 100), i % 3 == 0 ? "odd" : "even"));
    }
    PruneAll();
    const std::int64_t kept = Stored();
    EXPECT_LT(kept, kRecords);
    EXPECT_GT(kept, kRecords / 10);
    EXPECT_EQ(Number("SELECT min(id) FROM entries"), kRecords - kept + 1);
    EXPECT_THAT(Column("SELECT records || ' ' || watched_ms FROM playbacks"),
                ElementsAre(std::to_string(kept) + ' ' + std::to_string(10 * kept)));
    EXPECT_THAT(Column("SELECT playbacks || ' ' || records FROM losses WHERE reason = 'room'"),
                ElementsAre("0 " + std::to_string(kRecords - kept)));
    EXPECT_THAT(Wrong(), IsEmpty());
}

TEST_F(Room, IsNotTakenForALogThatAReaderHolds) {
    CTYStore& store = Open({std::chrono::hours(24), 4 * kMiB});
    store.Add(From(1000, "first", 36));
    CFileReader reader = Read();
    reader.Execute("BEGIN");
    ASSERT_EQ(reader.Number("SELECT count(*) FROM entries"), 36);
    while (std::filesystem::file_size(m_File.string() + "-wal") < 5 * kMiB) {
        store.Add(From(1000, "second", 36));
    }
    const std::int64_t stored = Stored();
    PruneAll();
    EXPECT_EQ(Stored(), stored);
    EXPECT_THAT(Column("SELECT reason FROM losses"), IsEmpty());
}

TEST_F(Room, OfAPlaybackThatIsStillFedIsReturnedByAge) {
    CTYStore& store = Open({std::chrono::hours(24), kMany});
    store.Add(WithTitle(BatchOf("always on"), "first"));
    for (int hour = 0; hour < 100; ++hour) {
        TYBatch batch = From(1000, "always on", 4);
        batch.sender = BatchOf("").sender;
        batch.records[1] = MakeRecord(TY_EVENT_BUFFERING_TIME, "always on", 7);
        batch.records[2] = MakeRecord(TY_ERROR_URL_CHANGED, "always on");
        store.Add(WithTitle(batch, std::to_string(hour)));
        m_Times.Pass(kHour);
        PruneAll();
    }
    EXPECT_THAT(Column("SELECT records || ' ' || watched_ms || ' ' || stalls || ' ' || stalled_ms "
                       "|| ' ' || errors || ' ' || started_sec FROM playbacks"),
                ElementsAre("96 480 24 168 24 0"));
    EXPECT_THAT(Column("SELECT min(title + 0) || ' ' || count(*) FROM contexts"),
                ElementsAre("76 24"));
    EXPECT_THAT(Column("SELECT title FROM contexts WHERE id = (SELECT context FROM playbacks)"),
                ElementsAre("76"));
    EXPECT_THAT(Wrong(), IsEmpty());
}

// The time that this thread has had a processor, whatever else the machine does.
std::chrono::nanoseconds ThreadTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

TEST_F(Room, IsMadeWithoutHoldingASenderForLong) {
    CTYStore& store = Open({std::chrono::hours(24), kMany});
    for (int i = 0; i < 100; ++i) {
        store.Add(From(1000, "big", 3000));
    }
    for (int i = 0; i < 1000; ++i) {
        store.Add(WithTitle(From(1000, "big", 1), std::to_string(i)));
    }
    m_Times.Pass(25 * kHour);
    std::chrono::nanoseconds longest{};
    for (bool isMore = true; isMore;) {
        const auto begin = ThreadTime();
        isMore = store.Prune();
        longest = std::max(longest, ThreadTime() - begin);
    }
    EXPECT_EQ(Stored(), 0);
    EXPECT_LT(longest, std::chrono::milliseconds(kWithSanitizersAllocator ? 1000 : 100));
}

// Makes each drop of a context take 5 ms.
void SlowDown(CTYDatabase& database) {
    const auto pause = [](sqlite3_context*, int, sqlite3_value**) { usleep(5000); };
    sqlite3_create_function(database.Handle(), "pause", 0, SQLITE_UTF8, nullptr, pause, nullptr,
                            nullptr);
    database.Execute(
        "CREATE TEMP TRIGGER slow BEFORE DELETE ON contexts BEGIN SELECT pause(); END");
}

TEST_F(Room, IsMadeInShortStepsOnASlowMachine) {
    CTYStore& store = Open({std::chrono::hours(24), kMany});
    for (int i = 0; i < 60; ++i) {
        store.Add(WithTitle(BatchOf("p"), std::to_string(i)));
    }
    m_Times.Pass(25 * kHour);
    SlowDown(store.Database());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(store.Prune());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(150));
    PruneAll();
    EXPECT_EQ(Stored(), 0);
}

TEST_F(Room, IsFoundThoughAHoldingIsWrong) {
    CTYStore& store = Open({std::chrono::hours(24), kMiB});
    Execute("INSERT INTO holdings VALUES(7, 1 << 40)");
    for (int i = 0; i < 400; ++i) {
        store.Add(From(1000, "p" + std::to_string(i), 100));
    }
    PruneAll();
    EXPECT_LE(store.UsedBytes(), kMiB);
    EXPECT_GT(Stored(), 1000);
    EXPECT_THAT(Wrong(), IsEmpty());
}

TEST_F(Room, OfDroppedTextsIsOverwritten) {
    CTYStore& store = Open({std::chrono::hours(24), kMany});
    store.Add(WithTitle(BatchOf("p"), "a secret title"));
    m_Times.Pass(24 * kHour);
    store.Add(WithTitle(BatchOf("p"), "another"));
    m_Times.Pass(kHour);
    PruneAll();
    store.EmptyLog();
    std::ifstream file(m_File, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    EXPECT_NE(bytes.find("another"), std::string::npos);
    EXPECT_EQ(bytes.find("a secret title"), std::string::npos);
    EXPECT_EQ(store.Database().Number("PRAGMA secure_delete"), 1);
}

TEST_F(Room, IsMadeInTheCacheOfTheWriterToo) {
    CTYStore& store = Open({std::chrono::hours(24), kMany});
    store.Add(WithTitle(BatchOf("p"), "old"));
    m_Times.Pass(24 * kHour);
    store.Add(WithTitle(BatchOf("p"), "young"));
    m_Times.Pass(kHour);
    PruneAll();
    store.Add(WithTitle(BatchOf("p"), "old"));
    store.Add(WithTitle(BatchOf("p"), "young"));
    EXPECT_THAT(Column("SELECT title FROM records ORDER BY id"),
                ElementsAre("young", "old", "young"));
    EXPECT_EQ(Number("SELECT count(*) FROM contexts"), 2) << "the young one was forgotten";
    EXPECT_THAT(Wrong(), IsEmpty());
}

TEST_F(Room, IsGivenBackByAnotherConnectionAtAnyTime) {
    CTYStore& store = Open({std::chrono::hours(24), kMany});
    store.Add(BatchOf("p"));
    {
        CTYDatabase other(m_File, CTYDatabase::Mode::READ_WRITE);
        CTYRunDropper dropper(other);
        CTYTransaction transaction(other);
        const TYDroppedRun dropped = dropper.Drop(dropper.OldestOf(1).value());
        EXPECT_EQ(dropped.records, 1);
        EXPECT_TRUE(dropped.playback);
        EXPECT_EQ(dropped.application, "org.example.app");
        EXPECT_FALSE(dropper.OldestOf(1));
        EXPECT_EQ(dropper.Drop(1).records, 0);
        transaction.Commit();
    }
    EXPECT_THAT(Column("SELECT (SELECT count(*) FROM senders) + (SELECT count(*) FROM playbacks) + "
                       "(SELECT count(*) FROM contexts) + (SELECT count(*) FROM holdings)"),
                ElementsAre("0"));
    store.Add(BatchOf("p"));
    EXPECT_EQ(Stored(), 1);
    EXPECT_THAT(Wrong(), IsEmpty());
}

}  // namespace
