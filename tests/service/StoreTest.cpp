// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStore.h"

#include "Samples.h"
#include "TYRecordImage.h"
#include "TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;

namespace {

class Store : public testing::Test {
  protected:
    CTemporaryFolder m_Folder;
    std::filesystem::path m_File = m_Folder.Path() / "t.db";
    CTYStore m_Store{m_File};
    CFileReader m_Reader{m_File};
    CFileReader m_Writer{m_File, CTYDatabase::Mode::READ_WRITE};
};

constexpr const char* kFailOn77 =
    "CREATE TRIGGER fail BEFORE INSERT ON entries WHEN NEW.event = 77 "
    "BEGIN SELECT RAISE(ABORT, 'no'); END";

TEST_F(Store, ABatchIsThereOnceAddReturns) {
    m_Store.Add(MakeBatch({MakeRecord(1), MakeRecord(6), MakeRecord(2)}));
    EXPECT_EQ(m_Reader.Number("SELECT count(*) FROM records"), 3);
}

TEST_F(Store, ABatchIsStoredWholeOrNotAtAll) {
    m_Writer.Execute(kFailOn77);
    const TYBatch batch = MakeBatch({MakeRecord(1), MakeRecord(2), MakeRecord(77)});
    EXPECT_THROW(m_Store.Add(batch), CTYDatabaseError);
    for (const char* pTable : {"senders", "playbacks", "contexts", "entries"}) {
        EXPECT_EQ(m_Reader.Number(("SELECT count(*) FROM " + std::string(pTable)).c_str()), 0);
    }
    m_Writer.Execute("DROP TRIGGER fail");
    m_Store.Add(batch);
    EXPECT_EQ(m_Reader.Number("SELECT count(*) FROM records"), 3);
}

TEST_F(Store, AFailedBatchTakesNothingOfTheOneBeforeWithIt) {
    m_Store.Add(BatchOf("p1"));
    m_Writer.Execute(kFailOn77);
    EXPECT_THROW(m_Store.Add(MakeBatch({MakeRecord(2), MakeRecord(77)})), CTYDatabaseError);
    m_Store.Add(MakeBatch({MakeRecord(3)}));
    EXPECT_THAT(m_Reader.Column("SELECT event FROM records ORDER BY id"), ElementsAre("1", "3"));
}

TEST_F(Store, OrderIsKeptOverBatchesAndPlaybacks) {
    m_Store.Add(MakeBatch({MakeRecord(8, "a", 1), MakeRecord(8, "b", 2), MakeRecord(8, "a", 3)}));
    m_Store.Add(MakeBatch({MakeRecord(8, "b", 4), MakeRecord(8, "a", 5)}));
    EXPECT_THAT(m_Reader.Column("SELECT param1 FROM records ORDER BY id"),
                ElementsAre("1", "2", "3", "4", "5"));
    EXPECT_THAT(m_Reader.Column("SELECT param1 FROM records WHERE playback_id = 'a' ORDER BY id"),
                ElementsAre("1", "3", "5"));
}

TEST_F(Store, NumbersHaveAColumnEach) {
    std::string image(4800, '\0');
    for (const std::size_t offset : {0, 1, 92, 96, 100, 104, 112, 113, 4792, 4796}) {
        image[offset] = static_cast<char>(1 + offset % 100);
    }
    m_Store.Add(MakeBatch({*RecordFromImage(image)}, 77));
    EXPECT_THAT(m_Reader.Column("SELECT arrival || ' ' || player_id || ' ' || network_type || ' ' "
                                "|| event || ' ' || param1 || ' ' || param2 || ' ' || duration "
                                "|| ' ' || drm_type || ' ' || content_type || ' ' || time_sec "
                                "|| ' ' || time_nsec FROM records"),
                ElementsAre("77 1 2 93 97 1 5 13 14 93 97"));
}

TEST_F(Store, TextsHaveAColumnEach) {
    TYMediaData record = MakeRecord(1, std::string(25, 'p'));
    CopyText(record.serviceVersion, "1.2");
    CopyText(record.content.channelID, "channel");
    CopyText(record.content.title, "title");
    CopyText(record.content.genre, "genre");
    CopyText(record.content.customInfo, "custom");
    m_Store.Add(MakeBatch({record}));
    EXPECT_THAT(m_Reader.Column("SELECT playback_id || ',' || service_version || ',' || service_id "
                                "|| ',' || channel_id || ',' || title || ',' || genre || ',' || "
                                "custom_info || ',' || url FROM records"),
                ElementsAre(std::string(25, 'p') +
                            ",1.2,org.example.app,channel,title,genre,custom,film.mp4"));
}

TEST_F(Store, WhatIsOutOfRangeIsStoredAsItIs) {
    m_Store.Add(MakeBatch({*RecordFromImage(std::string(4800, '\xff'))}));
    EXPECT_THAT(m_Reader.Column("SELECT player_id || ' ' || network_type || ' ' || event || ' ' || "
                                "param1 || ' ' || time_nsec || ' ' || length(genre) FROM records"),
                ElementsAre("-1 255 255 -1 -1 68"));
}

TEST_F(Store, TheImageIsKeptToTheLastByte) {
    std::string image(4800, '\0');
    for (std::size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<char>(i * 7);
    }
    m_Store.Add(MakeBatch({*RecordFromImage(image)}));
    const std::string common = m_Reader.Column("SELECT common FROM records").at(0);
    const auto padding = static_cast<std::size_t>(m_Reader.Number("SELECT padding FROM records"));
    const std::optional<TYMediaData> record = RecordFromCommonPart(common);
    const std::string_view again = ImageOf(record.value());
    EXPECT_EQ(again.substr(0, 92), image.substr(0, 92));
    EXPECT_EQ(again.substr(104, 4688), image.substr(104, 4688));
    EXPECT_EQ(padding, static_cast<unsigned char>(image[93]) |
                           static_cast<std::size_t>(static_cast<unsigned char>(image[94])) << 8 |
                           static_cast<std::size_t>(static_cast<unsigned char>(image[95])) << 16);
}

TEST_F(Store, AUrlThatDidNotComeIsNull) {
    TYBatch batch = MakeBatch({MakeRecord(1), MakeRecord(1), MakeRecord(1)});
    batch.urls = {"a", std::nullopt, ""};
    m_Store.Add(batch);
    EXPECT_THAT(m_Reader.Column("SELECT coalesce('<' || url || '>', 'none') FROM records "
                                "ORDER BY id"),
                ElementsAre("<a>", "none", "<>"));
}

TEST_F(Store, ASenderIsWhoTheBusSaysItIs) {
    TYBatch unknown = BatchOf("p1");
    unknown.sender = {"bus", ":1.2", std::nullopt, std::nullopt};
    m_Store.Add(BatchOf("p1"));
    m_Store.Add(unknown);
    EXPECT_THAT(m_Reader.Column("SELECT bus_name || ' ' || coalesce(uid, '?') || ' ' || "
                                "coalesce(pid, '?') FROM records ORDER BY id"),
                ElementsAre(":1.1 1000 4711", ":1.2 ? ?"));
}

TEST_F(Store, PlaybacksOfTwoSendersAreTwoUnderOneIdentifier) {
    TYBatch other = BatchOf("p1");
    other.sender.name = ":1.2";
    m_Store.Add(BatchOf("p1"));
    m_Store.Add(other);
    m_Store.Add(BatchOf("p1"));
    EXPECT_THAT(m_Reader.Column("SELECT records FROM playbacks ORDER BY id"),
                ElementsAre("2", "1"));
}

TEST_F(Store, AUniqueNameOfAnotherBusIsAnotherSender) {
    m_Store.Add(BatchOf("p1"));
    CTYStore restarted(m_File);
    TYBatch batch = BatchOf("p1");
    batch.sender.bus = "another";
    batch.sender.pid = 5;
    restarted.Add(batch);
    EXPECT_THAT(m_Reader.Column("SELECT pid FROM records ORDER BY id"), ElementsAre("4711", "5"));
}

TEST_F(Store, APlaybackGoesOnWhenTheStoreIsOpenedAgain) {
    m_Store.Add(BatchOf("p1", 1000));
    CTYStore(m_File).Add(BatchOf("p1", 2000));
    EXPECT_THAT(m_Reader.Column("SELECT records || ' ' || first_arrival || ' ' || last_arrival "
                                "FROM playbacks"),
                ElementsAre("2 1000 2000"));
}

TEST_F(Store, AThousandSendersLaterTheFirstOneIsStillKnown) {
    for (int i = 0; i < 1100; ++i) {
        TYBatch batch = BatchOf("p1");
        batch.sender.name = ":2." + std::to_string(i);
        m_Store.Add(batch);
    }
    TYBatch first = BatchOf("p1");
    first.sender.name = ":2.0";
    m_Store.Add(first);
    EXPECT_EQ(m_Reader.Number("SELECT count(*) FROM playbacks"), 1100);
    EXPECT_EQ(m_Reader.Number("SELECT records FROM playbacks WHERE id = 1"), 2);
}

TEST_F(Store, ContextsAreSharedByRecordsThatDifferInTheEventOnly) {
    for (int i = 0; i < 10; ++i) {
        m_Store.Add(MakeBatch({MakeRecord(8, "p1", i), MakeRecord(9, "p1", i)}));
    }
    EXPECT_EQ(m_Reader.Number("SELECT count(*) FROM contexts"), 1);
    EXPECT_EQ(m_Reader.Number("SELECT count(*) FROM entries"), 20);
}

TEST_F(Store, RecordsThatTakeTurnsInTheirContentAreAllToldApart) {
    std::vector<TYMediaData> records;
    for (int i = 0; i < 30; ++i) {
        records.push_back(MakeRecord(8, "p1", i % 10));
        CopyText(records.back().content.title, std::to_string(i % 10).c_str());
    }
    m_Store.Add(MakeBatch(records));
    EXPECT_EQ(m_Reader.Number("SELECT count(*) FROM records WHERE title = param1"), 30);
}

TEST_F(Store, ThePlaybacksViewHoldsWhatTheRecordsViewHolds) {
    for (int i = 0; i < 5; ++i) {
        std::vector<TYMediaData> records;
        records.reserve(30);
        for (int k = 0; k < 30; ++k) {
            records.push_back(MakeRecord(8, "p" + std::to_string(k / 14 % 2), i, k));
        }
        m_Store.Add(MakeBatch(records, i));
    }
    const char* pColumns =
        " id || ' ' || arrival || ' ' || playback_id || ' ' || param1 || ' ' || "
        "param2 || ' ' || url || ' ' || playback FROM ";
    const std::string select = std::string("SELECT") + pColumns;
    const auto records = m_Reader.Column((select + "records ORDER BY id").c_str());
    EXPECT_EQ(records.size(), 150U);
    EXPECT_EQ(m_Reader.Column((select + "records_by_playback ORDER BY id").c_str()), records);
}

class Totals : public Store {
  protected:
    std::string Of(const std::string& columns) {
        return m_Reader.Column(("SELECT " + columns + " FROM playbacks").c_str()).at(0);
    }
};

TYMediaData At(TYMediaData record, std::int32_t sec) {
    record.time.sec = sec;
    return record;
}

TEST_F(Totals, OfAPlaybackAreWhatItsRecordsSay) {
    m_Store.Add(MakeBatch({At(MakeRecord(1), 100), MakeRecord(21, "p1", 900), MakeRecord(4),
                           MakeRecord(22, "p1", 300), MakeRecord(20, "p1", 0, 5000)}));
    m_Store.Add(MakeBatch({MakeRecord(22, "p1", 200), MakeRecord(20, "p1", 0, 1000),
                           MakeRecord(202), At(MakeRecord(2), 160)}));
    EXPECT_EQ(Of("records || ' ' || watched_ms || ' ' || startup_ms || ' ' || stalls || ' ' || "
                 "stalled_ms || ' ' || errors || ' ' || started_sec || ' ' || ended_sec"),
              "9 6000 900 2 500 1 100 160");
}

TEST_F(Totals, OfAPlaybackWithoutEndOrStartAreNull) {
    m_Store.Add(MakeBatch({MakeRecord(8)}));
    EXPECT_EQ(Of("coalesce(started_sec, ended_sec, startup_ms, context, 'none')"), "none");
}

TEST_F(Totals, CountTheFirstStartAndTheLastStop) {
    m_Store.Add(MakeBatch({At(MakeRecord(1), 10), At(MakeRecord(1), 20), At(MakeRecord(2), 30)}));
    m_Store.Add(MakeBatch({At(MakeRecord(1), 40), At(MakeRecord(2), 50)}));
    EXPECT_EQ(Of("started_sec || ' ' || ended_sec"), "10 50");
}

TEST_F(Totals, TakeNoNegativeTimesFromABrokenClock) {
    m_Store.Add(MakeBatch({MakeRecord(20, "p1", 0, -5), MakeRecord(22, "p1", -5)}));
    EXPECT_EQ(Of("watched_ms || ' ' || stalls || ' ' || stalled_ms"), "0 1 0");
}

class Policy : public Store {};

TEST_F(Policy, IsOneUnlessSaidOtherwise) {
    EXPECT_EQ(m_Store.Policy("org.example.app"), 1);
    EXPECT_EQ(m_Store.Policy(""), 1);
}

TEST_F(Policy, HasADefaultAndExceptionsOfIt) {
    m_Writer.Execute("INSERT INTO policies VALUES('*', 0, 0), ('org.example.app', 7, 0)");
    EXPECT_EQ(m_Store.Policy("org.example.app"), 7);
    EXPECT_EQ(m_Store.Policy("org.example.other"), 0);
}

TEST_F(Policy, IsTheOneOfTheMoment) {
    EXPECT_EQ(m_Store.Policy("org.example.app"), 1);
    m_Writer.Execute("INSERT INTO policies VALUES('org.example.app', 0, 0)");
    EXPECT_EQ(m_Store.Policy("org.example.app"), 0);
    m_Writer.Execute("UPDATE policies SET value = -3");
    EXPECT_EQ(m_Store.Policy("org.example.app"), -3);
    m_Writer.Execute("DELETE FROM policies");
    EXPECT_EQ(m_Store.Policy("org.example.app"), 1);
}

TEST(StoreInMemory, WorksWithoutAFile) {
    CTYStore store(":memory:");
    store.Add(BatchOf("p1"));
    EXPECT_EQ(store.Policy("any"), 1);
    EXPECT_FALSE(std::filesystem::exists(":memory:"));
}

TEST(StoreFile, IsInWriteAheadMode) {
    const CTemporaryFolder folder;
    const CTYStore store(folder.Path() / "t.db");
    EXPECT_THAT(CFileReader(folder.Path() / "t.db").Column("PRAGMA journal_mode"),
                ElementsAre("wal"));
}

}  // namespace
