// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PostgresFixture.h"
#include "ReportFixture.h"
#include "StoreExport.h"
#include "TYPostgresReader.h"

#include <algorithm>
#include <random>

namespace {

constexpr int kDevices = 3;
constexpr int kSessionsOfDevice = 60;
constexpr std::int64_t kMillion = 1'000'000;
constexpr std::int64_t kNsPerHour = 3'600'000'000'000;

/// Several devices with a store each, the database of the fleet, and for comparison one store that
/// has the records of all devices.
class CFleetFiguresTest : public CPostgresTest {
  protected:
    void SetUp() override {
        CPostgresTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        for (int device = 0; device < kDevices; ++device) {
            m_Stores.push_back(std::make_unique<CTYStore>(File(device)));
        }
        for (int number = 0; number < kDevices * kSessionsOfDevice; ++number) {
            Play(number);
        }
        PlayOddities();
    }

    std::string File(int device) const {
        return m_Folder.Path() / ("device-" + std::to_string(device) + ".db");
    }

    void Add(int device, const std::vector<TYMediaData>& records, const std::string& url,
             std::int64_t arrival) {
        const std::span all(records);
        for (std::size_t i = 0; i < all.size(); i += 36) {
            const auto part = all.subspan(i, std::min<std::size_t>(36, all.size() - i));
            TYBatch batch = MakeBatch({part.begin(), part.end()}, arrival);
            batch.sender.name = ":1." + std::to_string(device);
            batch.urls.assign(part.size(), url);
            m_Stores[static_cast<std::size_t>(device)]->Add(batch);
            m_All.Add(batch);
        }
    }

    // The last hours: some playbacks without STOP are lost, others still play.
    void Play(int number) {
        const std::int64_t begin = m_nNow - (180 - number) * kNsPerHour / 12;
        const Session session = MakeSession(m_Dice, number, begin / kMillion);
        Add(number % kDevices, session.records, session.url, begin);
    }

    // No START, several STARTs, no identifier, an unknown network, a clock from before 1970.
    void PlayOddities() {
        TYMediaData lost = MakeRecord(TY_EVENT_PLAYBACK_TIME, "no-start", 1000);
        lost.networkType = 255;
        lost.playerID = -3;
        Add(0, {lost, MakeRecord(TY_EVENT_STOP, "no-start", 5000)}, "u", m_nNow - kNsPerHour);
        TYMediaData again = MakeRecord(TY_EVENT_START, "twice");
        CopyText(again.serviceVersion, "9.9");
        again.time.sec = 4711;
        Add(1, {MakeRecord(TY_EVENT_START, "twice"), again, MakeRecord(TY_EVENT_STOP, "twice")},
            "u", m_nNow - kNsPerHour);
        Add(2, {MakeRecord(TY_EVENT_START, ""), MakeRecord(TY_EVENT_STOP, "")}, "u", m_nNow);
        TYMediaData old = MakeRecord(TY_EVENT_START, "old");
        old.time = {-86'400, 5};
        Add(2, {old}, "u", m_nNow);
    }

    /// Forwards everything, out of order and with duplicates.
    void Forward() {
        Batches all;
        for (int device = 0; device < kDevices; ++device) {
            CFileReader store(File(device));
            const Batches batches = BatchesOfStore(store, "device-" + std::to_string(device));
            all.insert(all.end(), batches.begin(), batches.end());
        }
        all.insert(all.end(), all.begin(), all.begin() + 50);
        std::mt19937 random(1);
        std::shuffle(all.begin(), all.end(), random);
        CTYPostgresDatabase database(Url());
        for (std::size_t i = 0; i < all.size(); i += 16) {
            database.Add(std::span(all).subspan(i, std::min<std::size_t>(16, all.size() - i)));
        }
    }

    /// Neither figures nor reports need them.
    void DropRecords() const { Query("TRUNCATE entries, contexts"); }

    static std::string Kpi(const std::string& db, const std::vector<std::string>& options) {
        std::vector<std::string> command = {TALLYRA_COMMAND, "kpi", "--db", db, "--format", "json"};
        command.insert(command.end(), options.begin(), options.end());
        const Result result = RunProgram(command);
        EXPECT_EQ(result.code, 0) << result.err;
        return result.out;
    }
    void ExpectSameKpi(const std::vector<std::string>& options) const {
        const std::string expected = Kpi(m_AllFile, options);
        EXPECT_GT(expected.size(), 1000U);
        EXPECT_EQ(Kpi(Url(), options), expected) << testing::PrintToString(options);
    }

    CTemporaryFolder m_Folder;
    const std::string m_AllFile = m_Folder.Path() / "all.db";
    CTYStore m_All{m_AllFile};
    std::vector<std::unique_ptr<CTYStore>> m_Stores;
    CDice m_Dice{7};
};

TEST_F(CFleetFiguresTest, AreThoseOfTheStoresInEachGroup) {
    Forward();
    DropRecords();
    ExpectSameKpi({});
    for (const char* pGroup :
         {"application", "version", "player", "network", "content-type", "drm", "hour", "day"}) {
        ExpectSameKpi({"--by", pGroup});
    }
}

TEST_F(CFleetFiguresTest, AreThoseOfTheSelectedPlaybacks) {
    Forward();
    ExpectSameKpi({"--application", "org.example.movies"});
    ExpectSameKpi({"--since", "5h"});
    ExpectSameKpi({"--until", "5h", "--by", "network"});
}

TEST_F(CFleetFiguresTest, HaveBothPlayingAndLostPlaybacks) {
    Forward();
    std::map<TYPlaybackEnd, int> ends;
    CTYPostgresReader reader(Url());
    reader.ScanPlaybacks({}, m_nNow, CTYPostgresReader::Detail::FIGURES,
                         [&](const TYAnalyzedPlayback& each) { ++ends[each.figures.end]; });
    EXPECT_GT(ends[TYPlaybackEnd::PLAYING], 0);
    EXPECT_GT(ends[TYPlaybackEnd::LOST], 0);
    EXPECT_GT(ends[TYPlaybackEnd::START_FAILURE], 0);
    EXPECT_GT(ends[TYPlaybackEnd::PLAYBACK_FAILURE], 0);
    EXPECT_GT(ends[TYPlaybackEnd::EXIT_BEFORE_START], 0);
}

/// @return the data of a report of a database, without what differs by intention
nlohmann::json ReportOf(const std::string& db) {
    const Result result = RunProgram({TALLYRA_COMMAND, "report", "--db", db, "-o", "-"});
    EXPECT_EQ(result.code, 0) << result.err;
    const std::string begin = "id=\"data\">";
    const std::size_t from = result.out.find(begin) + begin.size();
    auto data = nlohmann::json::parse(result.out.substr(from, result.out.find('<', from) - from));
    for (const char* pName : {"made", "losses"}) {
        data.erase(pName);
    }
    // Any five of an error's playbacks, in the order in which they are read.
    for (auto& error : data["errors"]) {
        EXPECT_GT(error["examples"].size(), 0U);
        error.erase("examples");
    }
    return data;
}

TEST_F(CFleetFiguresTest, MakeTheReportOfTheStores) {
    Forward();
    DropRecords();
    const nlohmann::json fleet = ReportOf(Url());
    const nlohmann::json store = ReportOf(m_AllFile);
    EXPECT_EQ(fleet["worst"].size(), 20U);
    EXPECT_GT(fleet["errors"].size(), 0U);
    for (const auto& [name, value] : store.items()) {
        EXPECT_EQ(fleet[name], value) << name;
    }
}

TEST_F(CFleetFiguresTest, HaveThePhasesOfTheStores) {
    Forward();
    const std::string columns =
        " p.playback_id || ' ' || f.begin_ms || ' ' || f.length_ms || ' ' || f.name || ' ' || "
        "f.cause AS line FROM ";
    auto stored = CFileReader(m_AllFile).Column("SELECT" + columns +
                                                "phases f JOIN playbacks p ON p.id = f.playback");
    auto fleet = Column("SELECT" + columns + "phases f JOIN playbacks p USING(playback_id)");
    std::ranges::sort(stored);
    std::ranges::sort(fleet);
    EXPECT_GT(fleet.size(), 1000U);
    EXPECT_EQ(fleet, stored);
}

/// @return a query for the records as texts
std::string SqlForRecords() {
    std::string sql = "SELECT id";
    for (const char* pColumn : {"arrival",
                                "player_id",
                                "network_type",
                                "playback_id",
                                "service_version",
                                "service_id",
                                "event",
                                "param1",
                                "param2",
                                "duration",
                                "coalesce(url, '')",
                                "drm_type",
                                "content_type",
                                "channel_id",
                                "title",
                                "genre",
                                "custom_info",
                                "time_sec",
                                "time_nsec",
                                "padding"}) {
        sql += std::string(" || '|' || ") + pColumn;
    }
    return sql + " FROM records ORDER BY ";
}

TEST_F(CFleetFiguresTest, ComeFromTheSameRecords) {
    Forward();
    std::vector<std::string> stored;
    for (int device = 0; device < kDevices; ++device) {
        const auto rows = CFileReader(File(device)).Column(SqlForRecords() + "id");
        stored.insert(stored.end(), rows.begin(), rows.end());
    }
    EXPECT_GT(stored.size(), 5000U);
    EXPECT_EQ(Column(SqlForRecords() + "device, id"), stored);
}

TEST_F(CFleetFiguresTest, AreForKpiAndReportOnly) {
    const Result stats = RunProgram({TALLYRA_COMMAND, "stats", "--db", Url()});
    EXPECT_EQ(stats.code, 1);
    EXPECT_EQ(stats.err, "tallyra: only kpi and report can read the database of a fleet\n");
    const Result kpi = RunProgram({TALLYRA_COMMAND, "kpi", "--db", Url()});
    EXPECT_EQ(kpi.code, 1);
    EXPECT_EQ(kpi.err,
              "tallyra: cannot read the database of the fleet: the database has no tables of "
              "tallyra-collect\n");
}

}  // namespace
