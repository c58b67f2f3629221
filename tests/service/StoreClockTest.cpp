// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStoreClock.h"

#include "StoreFixture.h"

using testing::Gt;
using testing::MatchesRegex;

namespace {

constexpr std::int64_t kSecond = CFakeTimes::kSecond;
constexpr std::int64_t kHour = CFakeTimes::kHour;

TEST(SystemTimes, TellTheBootAndIncrease) {
    const TYTimes first = SystemTimes();
    const TYTimes second = SystemTimes();
    EXPECT_THAT(first.boot, MatchesRegex("[0-9a-f-]{36}"));
    EXPECT_EQ(first.boot, second.boot);
    EXPECT_THAT(first.boottime, Gt(0));
    EXPECT_THAT(second.boottime, Gt(first.boottime));
    const auto wall = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_LT(std::chrono::nanoseconds(wall).count() - second.wall, 60 * kSecond);
}

class StoreClock : public testing::Test {
  protected:
    CTYStoreClock Open(std::int64_t atLeast = 0) { return {m_Times.Reader(), m_Saved, atLeast}; }

    CFakeTimes m_Times;
    TYMoment m_Saved;
};

TEST_F(StoreClock, CountsWhileTheMachineRunsWhateverTheWallClockShows) {
    CTYStoreClock clock = Open();
    EXPECT_EQ(clock.Read().clock, 0);
    for (const std::int64_t step : {0 * kHour, 960 * kHour, -2000 * kHour, -498'900 * kHour}) {
        const std::int64_t before = clock.Read().clock;
        m_Times.Step(step);
        m_Times.Pass(kHour);
        EXPECT_EQ(clock.Read().clock, before + kHour);
        EXPECT_EQ(clock.Read().times.wall, m_Times.Now().wall);
    }
}

TEST_F(StoreClock, ContinuesAfterARestart) {
    m_Saved = {50 * kHour, m_Times.Now()};
    m_Times.Pass(3 * kHour);
    m_Times.Step(-1000 * kHour);
    EXPECT_EQ(Open().Read().clock, 53 * kHour);
}

TEST_F(StoreClock, AddsTheUptimeAfterAReboot) {
    m_Saved = {50 * kHour, m_Times.Now()};
    m_Times.Reboot(kHour);
    EXPECT_EQ(Open().Read().clock, 51 * kHour);
}

TEST_F(StoreClock, AddsNothingIfABootIsUnknown) {
    EXPECT_EQ(Open().Read().clock, 0) << "the store is new, and its machine ran for 100 hours";
    m_Saved = {50 * kHour, {"", 0, 0}};
    EXPECT_EQ(Open().Read().clock, 50 * kHour);
    const TYReadTimes nameless = [] { return TYTimes{"", kHour, 0}; };
    EXPECT_EQ(CTYStoreClock(nameless, {50 * kHour, {"boot", 0, 0}}, 0).Read().clock, 50 * kHour);
}

TEST_F(StoreClock, NeverDecreases) {
    m_Saved = {50 * kHour, m_Times.Now()};
    m_Times.Pass(-kHour);
    EXPECT_EQ(Open().Read().clock, 50 * kHour);
    CTYStoreClock clock = Open(60 * kHour);
    EXPECT_EQ(clock.Read().clock, 60 * kHour) << "the last run has this clock";
    m_Times.Pass(-kHour);
    EXPECT_EQ(clock.Read().clock, 60 * kHour);
}

TEST_F(StoreClock, ReportsAStepWhileTheServiceWasStoppedButNotOverAReboot) {
    m_Saved = Open().Read();
    m_Times.Pass(kHour);
    m_Times.Step(-40 * 24 * kHour);
    EXPECT_EQ(Open().TakeStep(), -40 * 24 * kHour);
    m_Times.Reboot();
    m_Times.Step(kHour);
    EXPECT_EQ(Open().TakeStep(), 0);
}

TEST_F(StoreClock, ReportsEachStepOfTheWallClockOnce) {
    CTYStoreClock clock = Open();
    for (const std::int64_t step : {-3 * kSecond, 40 * 24 * kHour}) {
        m_Times.Pass(kHour);
        m_Times.Step(step);
        clock.Read();
        clock.Read();
        EXPECT_EQ(clock.TakeStep(), step);
        EXPECT_EQ(clock.TakeStep(), 0);
    }
    m_Times.Step(2 * kSecond);
    clock.Read();
    EXPECT_EQ(clock.TakeStep(), 0) << "an adjusted clock may be that fast";
}

}  // namespace
