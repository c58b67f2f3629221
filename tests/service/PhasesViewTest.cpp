// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlaybackMakers.h"
#include "Sanitizers.h"
#include "StoreFixture.h"
#include "TYPlaybackScan.h"
#include "TYSchema.h"

#include <map>

// The view `phases` and AnalyzePlayback say the same about any playback.

void PrintTo(const TYPhase& phase, std::ostream* pOut) {
    *pOut << "{kind " << static_cast<int>(phase.kind) << ", cause " << phase.cause << ", "
          << phase.begin << " + " << phase.length << ", opener " << phase.opener << "}";
}

namespace {

using Phases = std::vector<TYPhase>;

std::string TextOf(const std::vector<TYTimelineRecord>& records) {
    std::ostringstream text;
    for (const TYTimelineRecord& record : records) {
        text << record.id << ": " << record.time << " event " << record.event << " ("
             << record.param1 << ", " << record.param2 << ")\n";
    }
    return text.str();
}

class PhasesView : public CStoreTest {
  protected:
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
        const auto viewed = View();
        ASSERT_EQ(static_cast<std::size_t>(database.Number("SELECT count(*) FROM playbacks")),
                  m_nPlaybacks);
        CTYStatement playbacks(database, "SELECT id FROM playbacks");
        while (playbacks.Step()) {
            const auto records = ReadRecordsOf(database, playbacks.Int(0));
            const auto phases = viewed.find(playbacks.Int(0));
            ASSERT_EQ(phases == viewed.end() ? Phases() : phases->second,
                      AnalyzePlayback(records).phases)
                << TextOf(records);
        }
    }

  private:
    TYMediaData RecordOf(const PlaybackRecord& made) const {
        TYMediaData record = MakeRecord(made.event, made.playback, made.param1, made.param2);
        record.time = {static_cast<std::int32_t>(made.time / 1000),
                       static_cast<std::int32_t>(made.time % 1000 * 1'000'000)};
        return record;
    }
    std::map<std::int64_t, Phases> View() {
        std::map<std::int64_t, Phases> phases;
        CTYStatement view(m_Store.Database(),
                          "SELECT playback, kind, cause, begin_ms, length_ms, opener FROM phases "
                          "ORDER BY playback, first_entry");
        while (view.Step()) {
            phases[view.Int(0)].push_back({static_cast<TYPhaseKind>(view.Int(1)),
                                           static_cast<TY_STALL_CAUSE>(view.Int(2)), view.Int(3),
                                           view.Int(4), view.Int(5)});
        }
        return phases;
    }

    CTYStore m_Store{":memory:"};
    std::size_t m_nPlaybacks = 0;
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
