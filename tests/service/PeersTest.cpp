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

    CTYPeers::Peer& Get(const std::string& name) { return m_Peers.Get(name, m_Now); }
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
                         return TYPeerIdentity{"bus", name, 1000, 42};
                     },
                     10};
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

struct Spending {
    std::chrono::milliseconds after;
    double records;
    bool isAllowed;
    int times = 1;
};

void ExpectBudget(double recordsPerSecond, const std::vector<Spending>& steps) {
    CTYPeers peers(
        [](const std::string& name) {
            return TYPeerIdentity{"", name, {}, {}};
        },
        recordsPerSecond);
    CTYPeers::Clock::time_point now{1000h};
    CTYPeers::Peer& peer = peers.Get(":1.1", now);
    for (std::size_t i = 0; i < steps.size(); ++i) {
        now += steps[i].after;
        for (int k = 0; k < steps[i].times; ++k) {
            EXPECT_EQ(peers.Spend(peer, steps[i].records, now), steps[i].isAllowed) << "step " << i;
        }
    }
}

TEST_F(Peers, AreLimitedToTheirRate) {
    const struct {
        const char* pRule;
        double recordsPerSecond;
        std::vector<Spending> steps;
    } cases[] = {
        {"a burst of ten seconds", 10, {{0ms, 99, true}, {0ms, 1, true}, {0ms, 1, false}}},
        {"refill", 10, {{0ms, 100, true}, {50ms, 1, false}, {50ms, 1, true}, {0ms, 1, false}}},
        {"no more than ten seconds", 10, {{0ms, 1, true}, {24h, 100, true}, {0ms, 1, false}}},
        {"an excess is paid back", 10, {{0ms, 110, true}, {1s, 1, false}, {100ms, 1, true}}},
        {"refusals are free", 10, {{0ms, 100, true}, {0ms, 36, false, 1000}, {100ms, 1, true}}},
        {"0 is no limit", 0, {{0ms, 1e9, true, 100}}},
        {"a small rate", 0.01, {{0ms, 36, true}, {30min, 36, false}, {90min, 36, true}}},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.pRule);
        ExpectBudget(one.recordsPerSecond, one.steps);
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
