// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlaybackMakers.h"
#include "Program.h"
#include "Sanitizers.h"
#include "ServiceCall.h"
#include "StoreFixture.h"
#include "TYPlaybackScan.h"
#include "TYRecordImage.h"
#include "TYSchema.h"

#include <fstream>
#include <map>

// The view `phases` and AnalyzePlayback say the same about any playback.

void PrintTo(const TYPhase& phase, std::ostream* pOut) {
    *pOut << "{kind " << static_cast<int>(phase.kind) << ", cause " << phase.cause << ", "
          << phase.begin << " + " << phase.length << ", opener " << phase.opener << "}";
}

namespace {

using namespace std::string_literals;

using Phases = std::vector<TYPhase>;

std::string TextOf(const std::vector<TYTimelineRecord>& records) {
    std::ostringstream text;
    for (const TYTimelineRecord& record : records) {
        text << record.id << ": " << record.time << " event " << record.event << " ("
             << record.param1 << ", " << record.param2 << ")\n";
    }
    return text.str();
}

std::string BytesOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The records among the arguments of a call.
std::vector<TYMediaData> RecordsIn(DBusMessage* pCall) {
    std::vector<TYMediaData> records;
    DBusMessageIter argument;
    for (dbus_message_iter_init(pCall, &argument);
         dbus_message_iter_get_arg_type(&argument) != DBUS_TYPE_INVALID;
         dbus_message_iter_next(&argument)) {
        if (dbus_message_iter_get_arg_type(&argument) == DBUS_TYPE_ARRAY &&
            dbus_message_iter_get_element_type(&argument) == DBUS_TYPE_BYTE) {
            DBusMessageIter array;
            const char* pBytes = nullptr;
            int size = 0;
            dbus_message_iter_recurse(&argument, &array);
            dbus_message_iter_get_fixed_array(&array, &pBytes, &size);
            const auto record = RecordFromImage({pBytes, static_cast<std::size_t>(size)});
            records.insert(records.end(), record ? 1 : 0, record.value_or(TYMediaData()));
        }
    }
    return records;
}

// The records of messages in their wire form, one behind the other.
std::vector<TYMediaData> RecordsOnWire(std::string_view wire) {
    std::vector<TYMediaData> records;
    while (!wire.empty()) {
        const int size =
            dbus_message_demarshal_bytes_needed(wire.data(), static_cast<int>(wire.size()));
        const TYMessagePtr call(dbus_message_demarshal(wire.data(), size, nullptr));
        const auto more = RecordsIn(call.get());
        records.insert(records.end(), more.begin(), more.end());
        wire.remove_prefix(static_cast<std::size_t>(size));
    }
    return records;
}

std::vector<TYMediaData> RecordsOfMessage(const std::string& input) {
    CBytes bytes(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    const TYMessagePtr call = MakeServiceCall(bytes);
    return call == nullptr ? std::vector<TYMediaData>() : RecordsIn(call.get());
}

// The first two bytes say how to decode the images behind them.
std::vector<TYMediaData> RecordsOfImage(const std::string& input) {
    std::string image = input.substr(std::min<std::size_t>(input.size(), 2));
    image.resize(sizeof(TYMediaData));
    return {*RecordFromImage(image)};
}

class PhasesView : public CStoreTest {
  protected:
    // The inputs hold records with any contents: all of one input count as one playback.
    void StoreCorpus(const char* pTarget,
                     std::vector<TYMediaData> (*recordsOf)(const std::string& input)) {
        for (const auto& file : std::filesystem::directory_iterator(CORPUS "/"s + pTarget)) {
            auto records = recordsOf(BytesOf(file.path()));
            const std::string playback = pTarget + std::to_string(m_nPlaybacks);
            for (TYMediaData& record : records) {
                std::ranges::fill(record.playbackID, '\0');
                playback.copy(record.playbackID, sizeof(record.playbackID) - 1);
            }
            m_nPlaybacks += records.empty() ? 0 : 1;
            m_nRecords += records.size();
            if (!records.empty()) {
                m_Store.Add(MakeBatch(std::move(records)));
            }
        }
    }

    // Of playbacks that were made together, each batch holds records of several.
    void Store(const std::vector<Playback>& playbacks, CDice& dice) {
        std::vector<std::size_t> taken(playbacks.size());
        for (bool isMore = true; isMore;) {
            std::vector<TYMediaData> batch;
            isMore = false;
            for (std::size_t i = 0; i < playbacks.size(); ++i) {
                for (int left = dice.Between(0, 9); left > 0 && taken[i] < playbacks[i].size();
                     --left) {
                    batch.push_back(RecordOf(playbacks[i][taken[i]++]));
                }
                isMore = isMore || taken[i] < playbacks[i].size();
            }
            m_Store.Add(MakeBatch(std::move(batch)));
        }
        m_nPlaybacks += static_cast<std::size_t>(std::ranges::count_if(
            playbacks, [](const Playback& playback) { return !playback.empty(); }));
    }

    void ExpectAgreement() {
        CTYDatabase& database = m_Store.Database();
        ASSERT_EQ(static_cast<std::size_t>(database.Number("SELECT count(*) FROM playbacks")),
                  m_nPlaybacks);
        ExpectAgreement(database);
    }

    static void ExpectAgreement(CTYDatabase& database) {
        const auto viewed = View(database);
        CTYStatement playbacks(database, "SELECT id FROM playbacks WHERE playback_id <> ''");
        while (playbacks.Step()) {
            const auto records = ReadRecordsOf(database, playbacks.Int(0));
            const auto phases = viewed.find(playbacks.Int(0));
            ASSERT_EQ(phases == viewed.end() ? Phases() : phases->second,
                      AnalyzePlayback(records).phases)
                << TextOf(records);
        }
    }

    CTYStore m_Store{":memory:"};
    std::size_t m_nPlaybacks = 0;
    std::size_t m_nRecords = 0;

  private:
    TYMediaData RecordOf(const PlaybackRecord& made) const {
        TYMediaData record = MakeRecord(made.event, made.playback, made.param1, made.param2);
        record.time = {static_cast<std::int32_t>(made.time / 1000),
                       static_cast<std::int32_t>(made.time % 1000 * 1'000'000)};
        return record;
    }
    static std::map<std::int64_t, Phases> View(CTYDatabase& database) {
        std::map<std::int64_t, Phases> phases;
        CTYStatement view(database,
                          "SELECT playback, kind, cause, begin_ms, length_ms, opener FROM phases "
                          "ORDER BY playback, first_entry");
        while (view.Step()) {
            phases[view.Int(0)].push_back({static_cast<TYPhaseKind>(view.Int(1)),
                                           static_cast<TY_STALL_CAUSE>(view.Int(2)), view.Int(3),
                                           view.Int(4), view.Int(5)});
        }
        return phases;
    }
};

TEST_F(PhasesView, AgreesAboutTheRecordings) {
    CDice dice(1);
    int number = 0;
    for (const auto& file : std::filesystem::directory_iterator(RECORDINGS)) {
        Store({RecordedPlayback(file.path(), ++number)}, dice);
    }
    ASSERT_GE(number, 3);
    ExpectAgreement();
}

TEST_F(PhasesView, AgreesAboutTheInputsOfTheFuzzers) {
    StoreCorpus("message", RecordsOfMessage);
    StoreCorpus("image", RecordsOfImage);
    ASSERT_GT(m_nRecords, m_nPlaybacks);
    ExpectAgreement();
}

TEST_F(PhasesView, AgreesAboutTheCapturedSessions) {
    const std::string path = m_Folder.Path() / "capture";
    ASSERT_EQ(RunProgram({CAPTURE, path}).code, 0);
    const auto records = RecordsOnWire(BytesOf(path));
    ASSERT_GT(records.size(), 100U);
    for (const TYMediaData& record : records) {
        m_Store.Add(MakeBatch({record}));
    }
    ExpectAgreement(m_Store.Database());
}

TEST_F(PhasesView, AgreesAboutTheStoresOfOlderVersions) {
    for (const char* pText : {STORES "/store-version-1.sql", STORES "/store-version-2.sql"}) {
        const auto file = m_Folder.Path() / std::filesystem::path(pText).stem();
        WriteStore(file, pText);
        CTYStore store(file);
        ASSERT_GT(store.Database().Number("SELECT count(*) FROM phases"), 0);
        ExpectAgreement(store.Database());
    }
}

// A new seed with each run, so that the runs together try more.
TEST_F(PhasesView, AgreesAboutGeneratedPlaybacks) {
    constexpr int kPlaybacks = kWithSanitizersAllocator ? 1'000 : 10'000;
    const char* pSeed = std::getenv("TALLYRA_TEST_SEED");
    const auto seed = pSeed == nullptr ? std::random_device()() : std::strtoull(pSeed, nullptr, 10);
    SCOPED_TRACE("to repeat this, set TALLYRA_TEST_SEED=" + std::to_string(seed));
    CDice dice(seed);
    for (int number = 0; number < kPlaybacks;) {
        std::vector<Playback> playbacks;
        for (const auto make :
             {ViewedPlayback, ShuffledPlayback, HostilePlayback, HostilePlayback}) {
            playbacks.push_back(make(dice, ++number));
        }
        Store(playbacks, dice);
    }
    ExpectAgreement();
}

// SQLite passes the condition on to the innermost query.
TEST_F(PhasesView, OfOnePlaybackSearchesOnlyItsRecords) {
    CFileReader plan(m_File, CTYDatabase::Mode::READ_WRITE);
    MigrateSchema(plan);
    CTYStatement steps(plan, "EXPLAIN QUERY PLAN SELECT * FROM phases WHERE playback = 7");
    int tables = 0;
    while (steps.Step()) {
        const std::string step(steps.Text(3));
        EXPECT_THAT(step, testing::Not(testing::ContainsRegex("SCAN [pcre]( |$)")));
        tables += step.starts_with("SEARCH ") ? 1 : 0;
    }
    EXPECT_EQ(tables, 4);
}

}  // namespace
