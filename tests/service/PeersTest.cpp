// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPeers.h"
#include "Test.h"

#include "doubles/PlatformDouble.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using namespace std::chrono_literals;

class Peers : public testing::Test {
  protected:
    Peers() { m_Platform.Reset(); }

    CTYPeers::Peer& Get(const std::string& name) { return *m_Peers.Get(name, m_Now); }
    void Complain(const std::string& name, TYComplaint complaint, const std::string& detail = "") {
        m_Peers.Complain(Get(name), complaint, m_Now, detail);
    }
    std::vector<std::string> Lines() {
        std::vector<std::string> texts;
        for (const CPlatformDouble::LogLine& line : m_Platform.Log()) {
            const bool isUnknownCode = line.text.find("unknown event code") != line.text.npos;
            EXPECT_EQ(line.priority, isUnknownCode ? LOGSVC_INFO : LOGSVC_ERROR);
            texts.push_back(line.text);
        }
        return texts;
    }

    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    std::vector<std::string> m_Asked;
    CTYPeers m_Peers{[this](const std::string& name) {
                         m_Asked.push_back(name);
                         return m_bKnown ? TYPeerIdentity{"bus", name, 1000, 42}
                                         : TYPeerIdentity{"bus", name, {}, {}};
                     },
                     10};
    bool m_bKnown = true;
    CTYPeers::Clock::time_point m_Now{1000h};
};

TEST_F(Peers, AreEvictedLeastRecentlySeenFirst) {
    Get("loud");
    Get("silent");
    for (int i = 0; i < 5000; ++i) {
        m_Now += 1ms;
        Get("loud");
        Get(":2." + std::to_string(i));
    }
    EXPECT_EQ(m_Peers.Count(), 1024U);
    m_Asked.clear();
    Get("loud");
    Get("silent");
    EXPECT_THAT(m_Asked, ElementsAre("silent"));
}

TEST_F(Peers, AreIdentifiedAgainOnceASecondWhileTheBusDoesNotKnowThem) {
    m_bKnown = false;
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(Get(":1.1").identity.uid);
        m_Now += 499ms;
    }
    EXPECT_EQ(m_Asked.size(), 4U);
    m_bKnown = true;
    m_Now += 1s;
    EXPECT_EQ(Get(":1.1").identity.uid, 1000);
    m_Now += 1h;
    Get(":1.1");
    EXPECT_EQ(m_Asked.size(), 5U);
}

struct Spending {
    std::chrono::milliseconds after;
    std::size_t records;
    TYExcess excess = TYExcess::NONE;
    int times = 1;
    std::size_t bytes = 0;
};

constexpr auto kTooMany = TYExcess::RECORDS;
constexpr auto kTooLong = TYExcess::BYTES;

// Each spending comes from a new connection of the same user.
void ExpectBudget(double recordsPerSecond, const std::vector<Spending>& steps) {
    CTYPeers peers(
        [](const std::string& name) {
            return TYPeerIdentity{"", name, 1000, {}};
        },
        recordsPerSecond);
    CTYPeers::Clock::time_point now{1000h};
    int connection = 0;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        now += steps[i].after;
        for (int k = 0; k < steps[i].times; ++k) {
            const auto peer = peers.Get(":1." + std::to_string(++connection), now);
            EXPECT_EQ(peers.Spend(*peer, steps[i].records, steps[i].bytes, now), steps[i].excess)
                << "step " << i;
        }
    }
}

TEST_F(Peers, AreLimitedToTheRateOfTheirUser) {
    const struct {
        const char* pRule;
        double recordsPerSecond;
        std::vector<Spending> steps;
    } cases[] = {
        {"a burst of ten seconds", 10, {{0ms, 99}, {0ms, 1}, {0ms, 1, kTooMany}}},
        {"refill", 10, {{0ms, 100}, {50ms, 1, kTooMany}, {50ms, 1}, {0ms, 1, kTooMany}}},
        {"no more than ten seconds", 10, {{0ms, 1}, {24h, 100}, {0ms, 1, kTooMany}}},
        {"an excess is paid back", 10, {{0ms, 110}, {1s, 1, kTooMany}, {100ms, 1}}},
        {"refusals are free", 10, {{0ms, 100}, {0ms, 36, kTooMany, 1000}, {100ms, 1}}},
        {"no record costs as much as one", 10, {{0ms, 0, {}, 100}, {0ms, 0, kTooMany}}},
        {"0 is no limit", 0, {{0ms, 1'000'000'000, {}, 100}}},
        {"a small rate", 0.01, {{0ms, 36}, {30min, 36, kTooMany}, {90min, 36}}},
        {"long URLs", 10, {{0ms, 1, {}, 1, 512'000}, {0ms, 1, kTooLong}, {100ms, 1}}},
        {"long URLs are paid back", 10, {{0ms, 1, {}, 1, 1'024'000}, {10s, 1, kTooLong}, {1s, 1}}},
        {"bytes of images", 10, {{0ms, 36, {}, 2, 36 * 4800}, {0ms, 28, {}, 1, 28 * 4800}}},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.pRule);
        ExpectBudget(one.recordsPerSecond, one.steps);
    }
}

TEST_F(Peers, OfOtherUsersHaveTheirOwnBudgets) {
    std::int64_t user = 0;
    CTYPeers peers(
        [&](const std::string& name) {
            return TYPeerIdentity{"", name, ++user, {}};
        },
        10);
    // More users than budgets are kept.
    for (int i = 0; i < 3000; ++i) {
        m_Now += 1ms;
        const auto peer = peers.Get(":1." + std::to_string(i), m_Now);
        EXPECT_EQ(peers.Spend(*peer, 100, 0, m_Now), TYExcess::NONE);
        EXPECT_EQ(peers.Spend(*peer, 1, 0, m_Now), TYExcess::RECORDS);
    }
}

TEST_F(Peers, AreLoggedOnceAMinuteForEachKind) {
    for (int i = 0; i < 60; ++i) {
        Complain(":1.1", TYComplaint::FLOOD);
        Complain(":1.1", TYComplaint::URL_COUNT);
        m_Now += 999ms;
    }
    EXPECT_EQ(Lines().size(), 2U);
    m_Now += 60ms;
    Complain(":1.1", TYComplaint::FLOOD);
    EXPECT_EQ(Lines().size(), 3U);
    EXPECT_THAT(Lines().back(), HasSubstr("(59 more since last logged)"));
}

TEST_F(Peers, AreLoggedEachWithNameUserProcessAndDetail) {
    Complain(":1.7", TYComplaint::IMAGE_SIZE, ": 12 bytes");
    Complain(":1.8", TYComplaint::IMAGE_SIZE);
    EXPECT_THAT(Lines(), ElementsAre(":1.7 (uid 1000, pid 42) sent an image of the wrong size: "
                                     "12 bytes (0 more since last logged)",
                                     HasSubstr(":1.8 ")));
}

TEST_F(Peers, HaveALogTextForEachKind) {
    for (int kind = 0; kind < static_cast<int>(TYComplaint::COUNT); ++kind) {
        Complain(":1.1", static_cast<TYComplaint>(kind));
    }
    const auto lines = Lines();
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(),
              static_cast<std::size_t>(TYComplaint::COUNT));
}

TEST_F(Peers, CannotForgeLogLines) {
    Complain(":1.1", TYComplaint::FUNCTION, ": \"x\nservice: all is well\x1b[2J\xff\"");
    EXPECT_THAT(Lines(), ElementsAre(AllOf(HasSubstr("\"x?service: all is well?[2J?\""),
                                           testing::Not(HasSubstr("\n")))));
}

TEST_F(Peers, ThatReconnectUnderNewNamesCannotFloodTheLog) {
    for (int i = 0; i < 1000; ++i) {
        Complain(":2." + std::to_string(i), TYComplaint::FLOOD);
    }
    EXPECT_EQ(Lines().size(), CTYPeers::kLinesAMinute);
    EXPECT_THAT(Lines().back(), HasSubstr("logging no more of them"));
    m_Now += 60s;
    Complain(":3.1", TYComplaint::FLOOD);
    EXPECT_THAT(Lines().back(), HasSubstr(":3.1"));
}

}  // namespace
