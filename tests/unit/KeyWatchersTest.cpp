// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <atomic>
#include <future>
#include <ostream>
#include <thread>

namespace {

using Ignore = CPlatformDouble::Ignore;

/// Many collectors in one process, and the one key that all of them watch.
class CKeyWatchersTest : public CCollectorTest {
  protected:
    std::unique_ptr<CTYDataCollector> MakeCollector() {
        return std::make_unique<CTYDataCollector>("org.example.app", TY_PLAYER_NATIVE, m_Bus,
                                                  m_Clock);
    }

    void MakeCollectors(std::size_t count) {
        while (m_Collectors.size() < count) {
            m_Collectors.push_back(MakeCollector());
        }
        ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done", count));
    }

    /// @return how many collectors hear of a change of the key
    std::size_t Hearers() {
        m_Platform.ClearLog();
        m_Platform.FireKeyChanged();
        return m_Platform.CountLog("m_isDataCollectOn : [1]");
    }

    std::vector<std::unique_ptr<CTYDataCollector>> m_Collectors;
};

TEST_F(CKeyWatchersTest, DeletionWaitsForNoOtherCollectorsCallback) {
    MakeCollectors(1);  // whose callback comes first
    MakeCollectors(2);
    std::atomic<bool> first = true;
    std::promise<void> asked;
    std::promise<void> answer;
    m_Bus.onCall = [&](const CFakeBus::Call& call) {
        if (call.Function() == "GetPolicyInfo" && first.exchange(false)) {
            asked.set_value();
            answer.get_future().wait();
        }
    };
    std::thread platform([&] { m_Platform.FireKeyChanged(); });
    asked.get_future().wait();
    std::thread waits([&] { m_Collectors[0].reset(); });
    ASSERT_TRUE(m_Platform.WaitForLog("Sender join terminate"));
    auto goes = std::async(std::launch::async, [&] { m_Collectors[1].reset(); });
    EXPECT_EQ(goes.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    answer.set_value();
    platform.join();
    waits.join();
}

struct Crowd {
    std::size_t count;
    Ignore ignore;
    /// Which one goes next, of those that are left.
    std::size_t (*next)(std::size_t left);
};

void PrintTo(const Crowd& crowd, std::ostream* pOut) {
    *pOut << crowd.count << (crowd.ignore == Ignore::ALL ? ", all" : ", the oldest");
}

std::size_t Oldest(std::size_t /*left*/) {
    return 0;
}
std::size_t Youngest(std::size_t left) {
    return left - 1;
}
std::size_t Middle(std::size_t left) {
    return left / 2;
}

class CCrowdTest : public CKeyWatchersTest, public testing::WithParamInterface<Crowd> {};

TEST_P(CCrowdTest, WhoeverIsLeftStillHearsOfTheKey) {
    m_Platform.ignore = GetParam().ignore;
    MakeCollectors(GetParam().count);
    EXPECT_EQ(Hearers(), GetParam().count);
    while (!m_Collectors.empty()) {
        const auto goes = static_cast<std::ptrdiff_t>(GetParam().next(m_Collectors.size()));
        m_Collectors.erase(m_Collectors.begin() + goes);
        EXPECT_EQ(Hearers(), m_Collectors.size());
    }
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    TwoAndTwenty, CCrowdTest,
    testing::Values(Crowd{2, Ignore::ALL, &Oldest}, Crowd{2, Ignore::ALL, &Youngest},
                    Crowd{2, Ignore::OLDEST, &Oldest}, Crowd{2, Ignore::OLDEST, &Youngest},
                    Crowd{20, Ignore::ALL, &Oldest}, Crowd{20, Ignore::ALL, &Youngest},
                    Crowd{20, Ignore::ALL, &Middle}, Crowd{20, Ignore::OLDEST, &Oldest},
                    Crowd{20, Ignore::OLDEST, &Youngest}, Crowd{20, Ignore::OLDEST, &Middle}));

class CNewcomerTest : public CKeyWatchersTest, public testing::WithParamInterface<Ignore> {};

TEST_P(CNewcomerTest, HearsOfTheKeyAfterAllOthersHaveGone) {
    m_Platform.ignore = GetParam();
    MakeCollectors(3);
    m_Collectors.clear();
    m_Platform.ClearLog();
    MakeCollectors(1);
    EXPECT_EQ(Hearers(), 1U);
    EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Stores, CNewcomerTest, testing::Values(Ignore::ALL, Ignore::OLDEST));

TEST_F(CKeyWatchersTest, CollectorMayGoAfterAHundredFlipsOfTheKey) {
    MakeCollectors(1);
    for (int flip = 0; flip < 100; ++flip) {
        m_Platform.ChangeKey(flip % 2);
    }
    EXPECT_EQ(m_Platform.CountLog("m_isDataCollectOn : [1]"), 50U);
    m_Collectors.clear();
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
    EXPECT_EQ(m_Bus.Count("Close"), 1U);
}

TEST_F(CKeyWatchersTest, CollectorsMayComeAndGoWhileTheKeyFlips) {
    std::atomic<bool> stop{false};
    std::thread flipper([&] {
        for (int flip = 0; !stop; ++flip) {
            m_Platform.ChangeKey(flip % 2);
        }
    });
    for (int i = 0; i < 50; ++i) {
        const auto collector = MakeCollector();
        // Half of them go with a watch on the key, half of them on the way to it.
        if (i % 2 == 0) {
            EXPECT_TRUE(m_Platform.WaitForLog("service is connected!", 1));
            m_Platform.ClearLog();
        }
    }
    stop = true;
    flipper.join();
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
    EXPECT_EQ(m_Bus.Count("Close"), 50U);
}

}  // namespace
