// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FleetFixture.h"
#include "TYSpool.h"
#include "TableTest.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

namespace {

class Spool : public CStoreTest {
  protected:
    void SetUp() override { CTYStore(m_File.string()); }

    void Add(const TYBatch& batch) { CTYStore(m_File.string()).Add(batch); }
    void AddEntries(int count) {
        Add(MakeBatch(std::vector<TYMediaData>(static_cast<std::size_t>(count),
                                               MakeRecord(TY_EVENT_PLAYBACK_TIME))));
    }
    /// @return the bounds of all batches
    std::vector<std::pair<std::int64_t, std::int64_t>> Bounds(std::int64_t after = 0) {
        CFileReader database(m_File);
        CTYSpool spool(database, "tv1", false);
        std::vector<std::pair<std::int64_t, std::int64_t>> all;
        std::int64_t passed = after;
        m_Withheld.clear();
        while (const auto bounds = spool.Find(after, passed, m_Withheld)) {
            all.emplace_back(bounds->first, bounds->last);
            EXPECT_EQ(bounds->after, after);
            after = passed = bounds->last;
        }
        return all;
    }
    std::vector<TYForwardedBatch> ReadBatch(const CTYSpool::Bounds& bounds,
                                            bool keepQueries = false) {
        CFileReader database(m_File);
        return CTYSpool(database, "tv1", keepQueries).Read(bounds);
    }

    CTYSpool::Withheld m_Withheld;
};

TEST_F(Spool, MakesBatchesOf24) {
    EXPECT_THAT(Bounds(), IsEmpty());
    AddEntries(50);
    EXPECT_THAT(Bounds(), ElementsAre(Pair(1, 24), Pair(25, 48), Pair(49, 50)));
    EXPECT_THAT(Bounds(48), ElementsAre(Pair(49, 50)));
}

TEST_F(Spool, BeginsANewBatchWhereEntriesAreGone) {
    AddEntries(10);
    Execute("DELETE FROM entries WHERE id IN (1, 5, 6)");
    EXPECT_THAT(Bounds(), ElementsAre(Pair(2, 4), Pair(7, 10)));
}

TEST_F(Spool, ReadsRecordsAsTheyCame) {
    TYMediaData record = MakeRecord(TY_EVENT_START, "p1", -1, 7);
    record.time = {1'795'000'000, 123'456'789};
    record.padding2[1] = 'x';
    CopyText(record.content.title, "A film");
    Add(MakeBatch({record, record}, 4242));
    const auto batches = ReadBatch({0, 1, 2});
    ASSERT_THAT(batches, SizeIs(1));
    EXPECT_EQ(std::memcmp(batches[0].records.data() + 1, &record, sizeof(record)), 0);
    EXPECT_THAT(batches[0].arrivals, ElementsAre(4242, 4242));
    EXPECT_EQ(batches[0].urls[0], "film.mp4");
    EXPECT_EQ(batches[0].epoch, Column("SELECT epoch FROM store").at(0));
    EXPECT_FALSE(batches[0].origin);
}

TEST_F(Spool, SaysWhichEntriesOfABatchAreGone) {
    AddEntries(24);
    Execute("DELETE FROM entries WHERE id IN (1, 10, 23, 24)");
    std::vector<std::tuple<std::int64_t, std::int64_t, std::size_t>> parts;
    for (const TYForwardedBatch& batch : ReadBatch({0, 1, 24})) {
        parts.emplace_back(batch.after, batch.first, batch.records.size());
    }
    EXPECT_THAT(parts,
                ElementsAre(std::tuple(0, 2, 8), std::tuple(9, 11, 12), std::tuple(22, 25, 0)));
    Execute("DELETE FROM entries");
    const auto nothing = ReadBatch({0, 1, 24});
    ASSERT_THAT(nothing, SizeIs(1));
    EXPECT_EQ(nothing[0].Last(), 24);
}

TEST_F(Spool, KeepsRecordsOfApplicationsWithThePolicyZero) {
    for (int i = 0; i < 3; ++i) {
        TYMediaData other = MakeRecord(TY_EVENT_START, "p2");
        CopyText(other.serviceID, "org.example.private");
        Add(MakeBatch({MakeRecord(TY_EVENT_START), other, other}));
    }
    Execute(
        "INSERT INTO policies(application, value, changed) "
        "VALUES('org.example.private', 0, 0)");
    EXPECT_THAT(Bounds(), ElementsAre(Pair(1, 1), Pair(4, 4), Pair(7, 7)));
    EXPECT_THAT(m_Withheld, ElementsAre(Pair("org.example.private", 6)));
}

TEST_F(Spool, SendsRecoveredRecordsWithTheKeyThatTheyHad) {
    AddEntries(10);
    Execute(
        "INSERT INTO origins(first, last, epoch, origin) "
        "VALUES(1, 3, '0a1b2c3d-0000-4000-8000-000000000001', 101), "
        "(4, 5, '0a1b2c3d-0000-4000-8000-000000000001', 201)");
    EXPECT_THAT(Bounds(), ElementsAre(Pair(1, 3), Pair(4, 5), Pair(6, 10)));
    const auto batches = ReadBatch({3, 4, 5});
    ASSERT_THAT(batches, SizeIs(1));
    EXPECT_EQ(batches[0].KeyEpoch(), kEpoch);
    EXPECT_EQ(batches[0].KeyFirst(), 201);
}

TEST_F(Spool, MakesSmallerBatchesOfLongUrls) {
    TYBatch batch = MakeBatch(std::vector<TYMediaData>(10, MakeRecord(TY_EVENT_START)));
    batch.urls.assign(10, std::string(60'000, 'x'));
    Add(batch);
    EXPECT_THAT(Bounds(), ElementsAre(Pair(1, 4), Pair(5, 8), Pair(9, 10)));
}

TEST_F(Spool, StripsUrlsUnlessToldOtherwise) {
    TYBatch batch = BatchOf("p1");
    batch.urls[0] = "https://*@media.example/film.mpd?token=*";
    Add(batch);
    EXPECT_EQ(ReadBatch({0, 1, 1})[0].urls[0], "https://media.example/film.mpd");
    EXPECT_EQ(ReadBatch({0, 1, 1}, true)[0].urls[0], batch.urls[0]);
}

struct Url {
    const char* url;
    const char* stripped;
};
class StrippedUrlOf : public testing::TestWithParam<Named<Url>> {};
const Named<Url> kUrls[] = {
    {"Plain", {"https://a.example/b", "https://a.example/b"}},
    {"Query", {"https://a.example/b?c=d#e", "https://a.example/b"}},
    {"Fragment", {"https://a.example/b#e?c", "https://a.example/b"}},
    {"User", {"https://u:p@a.example/b", "https://a.example/b"}},
    {"TwoAts", {"https://u@x:p@a.example/b", "https://a.example/b"}},
    {"AtInThePath", {"https://a.example/b@c", "https://a.example/b@c"}},
    {"OnlyHost", {"https://u@a.example", "https://a.example"}},
    {"NoScheme", {"film.mp4?x", "film.mp4"}},
    {"Empty", {"", ""}},
};
INSTANTIATE_TEST_SUITE_P(Table, StrippedUrlOf, testing::ValuesIn(kUrls), kByName);

TEST_P(StrippedUrlOf, HasNoUserAndNoQuery) {
    EXPECT_EQ(StrippedUrl(GetParam().data.url), GetParam().data.stripped);
}

}  // namespace
