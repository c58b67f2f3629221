// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYServiceStatus.h"

#include "Test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using namespace std::chrono_literals;

class ServiceStatus : public testing::Test {
  protected:
    // Returns what is sent at that time after the beginning.
    std::vector<std::string> SentAt(std::chrono::seconds time) {
        m_Sent.clear();
        m_Status.Update(m_State, CTYServiceStatus::Clock::time_point(1000s + time));
        return m_Sent;
    }
    std::chrono::nanoseconds Next() const {
        return m_Status.Next() - CTYServiceStatus::Clock::time_point(1000s);
    }

    std::vector<std::string> m_Sent;
    TYKeeperState m_State{.isOpen = true};
    CTYServiceStatus m_Status{[this](const std::string& text) { m_Sent.push_back(text); }, 30s};
};

TEST_F(ServiceStatus, SaysHowManyRecordsAndHowMuchSpace) {
    const struct {
        TYKeeperState state;
        const char* pText;
    } cases[] = {
        {{0, 0, 0, true}, "0 records stored, 0 refused, 0.0 MiB"},
        {{999, 1000, 1 << 20, true}, "999 records stored, 1,000 refused, 1.0 MiB"},
        {{12'345, 0, 3'250'000, true}, "12,345 records stored, 0 refused, 3.1 MiB"},
        {{1'234'567, 3, 0, false},
         "1,234,567 records stored, 3 refused, 0.0 MiB; the store cannot be opened"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(CTYServiceStatus::TextOf(one.state), one.pText);
    }
}

TEST_F(ServiceStatus, IsSentEveryTenSecondsIfItHasChanged) {
    const std::string first = "STATUS=0 records stored, 0 refused, 0.0 MiB";
    EXPECT_THAT(SentAt(0s), ElementsAre("WATCHDOG=1", first));
    m_State.stored = 1;
    EXPECT_THAT(SentAt(9s), IsEmpty());
    EXPECT_EQ(Next(), 10s);
    EXPECT_THAT(SentAt(10s), ElementsAre("STATUS=1 records stored, 0 refused, 0.0 MiB"));
    EXPECT_THAT(SentAt(20s), ElementsAre("WATCHDOG=1"));
}

TEST_F(ServiceStatus, KeepsTheWatchdogQuietAtHalfOfItsTime) {
    SentAt(0s);
    SentAt(14s);
    EXPECT_EQ(Next(), 15s);
    EXPECT_THAT(SentAt(15s), ElementsAre("WATCHDOG=1"));
    EXPECT_THAT(SentAt(29s), IsEmpty());
    EXPECT_THAT(SentAt(30s), ElementsAre("WATCHDOG=1"));
}

TEST_F(ServiceStatus, HasNoWatchdogUnlessItIsWatched) {
    CTYServiceStatus status([this](const std::string& text) { m_Sent.push_back(text); }, 0s);
    status.Update(m_State, CTYServiceStatus::Clock::time_point(1000s));
    EXPECT_THAT(m_Sent, ElementsAre("STATUS=0 records stored, 0 refused, 0.0 MiB"));
    EXPECT_EQ(status.Next(), CTYServiceStatus::Clock::time_point(1010s));
}

}  // namespace
