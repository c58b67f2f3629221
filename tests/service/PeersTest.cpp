// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPeers.h"

#include "doubles/PlatformDouble.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using namespace std::chrono_literals;

class Peers : public testing::Test {
  protected:
    Peers() { m_Platform.Reset(); }

    CTYPeers::Peer& Get(const std::string& name) { return m_Peers.Get(name, m_Now); }
    bool Spend(const std::string& name, double records) {
        return m_Peers.Spend(Get(name), records, m_Now);
    }
    void Complain(const std::string& name, TYComplaint complaint, const std::string& detail = "") {
        m_Peers.Complain(Get(name), complaint, m_Now, detail);
    }
    std::vector<std::string> Said() {
        std::vector<std::string> texts;
        for (const CPlatformDouble::LogLine& line : m_Platform.Log()) {
            const bool isNews = line.text.find("unknown event code") != line.text.npos;
            EXPECT_EQ(line.priority, isNews ? LOGSVC_INFO : LOGSVC_ERROR);
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

TEST_F(Peers, AreAskedAboutOnce) {
    Get(":1.1");
    Get(":1.2");
    EXPECT_EQ(Get(":1.1").identity.pid, 42);
    EXPECT_THAT(m_Asked, ElementsAre(":1.1", ":1.2"));
}

TEST_F(Peers, MaySendTenSecondsWorthAtOnce) {
    EXPECT_TRUE(Spend(":1.1", 99));
    EXPECT_TRUE(Spend(":1.1", 1));
    EXPECT_FALSE(Spend(":1.1", 1));
}

TEST_F(Peers, MaySendTheirRateInTheLongRun) {
    Spend(":1.1", 100);
    m_Now += 50ms;
    EXPECT_FALSE(Spend(":1.1", 1));
    m_Now += 50ms;
    EXPECT_TRUE(Spend(":1.1", 1));
    EXPECT_FALSE(Spend(":1.1", 1));
}

TEST_F(Peers, DoNotSaveUpMoreThanTenSeconds) {
    Spend(":1.1", 1);
    m_Now += 24h;
    EXPECT_TRUE(Spend(":1.1", 100));
    EXPECT_FALSE(Spend(":1.1", 1));
}

TEST_F(Peers, WaitForWhatABatchWasTooBigBy) {
    EXPECT_TRUE(Spend(":1.1", 110));
    m_Now += 1s;
    EXPECT_FALSE(Spend(":1.1", 1));
    m_Now += 100ms;
    EXPECT_TRUE(Spend(":1.1", 1));
}

TEST_F(Peers, ThatAreRefusedDoNotWaitLongerForIt) {
    Spend(":1.1", 100);
    for (int i = 0; i < 1000; ++i) {
        EXPECT_FALSE(Spend(":1.1", 36));
    }
    m_Now += 100ms;
    EXPECT_TRUE(Spend(":1.1", 1));
}

TEST_F(Peers, DoNotSpendWhatIsAnothers) {
    Spend(":1.1", 100);
    EXPECT_TRUE(Spend(":1.2", 100));
}

TEST_F(Peers, OfWhomAnyNumberIsTakenNeverSendTooMuch) {
    CTYPeers peers([](const std::string& name) { return TYPeerIdentity{"", name, {}, {}}; }, 0);
    CTYPeers::Peer& peer = peers.Get(":1.1", m_Now);
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(peers.Spend(peer, 1e9, m_Now));
    }
}

TEST_F(Peers, AtAVerySmallRateGetABatchThroughNowAndThen) {
    CTYPeers peers([](const std::string& name) { return TYPeerIdentity{"", name, {}, {}}; }, 0.01);
    CTYPeers::Peer& peer = peers.Get(":1.1", m_Now);
    EXPECT_TRUE(peers.Spend(peer, 36, m_Now));
    EXPECT_FALSE(peers.Spend(peer, 36, m_Now + 30min));
    EXPECT_TRUE(peers.Spend(peer, 36, m_Now + 2h));
}

TEST_F(Peers, AreComplainedAboutOnceAMinuteForEachKind) {
    for (int i = 0; i < 60; ++i) {
        Complain(":1.1", TYComplaint::FLOOD);
        Complain(":1.1", TYComplaint::URL_COUNT);
        m_Now += 999ms;
    }
    EXPECT_EQ(Said().size(), 2U);
    m_Now += 60ms;
    Complain(":1.1", TYComplaint::FLOOD);
    EXPECT_EQ(Said().size(), 3U);
    EXPECT_THAT(Said().back(), HasSubstr("59 more since last logged"));
}

TEST_F(Peers, AreComplainedAboutByNameUserProcessAndDetail) {
    Complain(":1.7", TYComplaint::IMAGE_SIZE, ": 12 bytes");
    EXPECT_THAT(Said(), ElementsAre(":1.7 (uid 1000, pid 42) sent an image of the wrong size: "
                                    "12 bytes (0 more since last logged)"));
}

TEST_F(Peers, AreEachComplainedAboutOnTheirOwn) {
    Complain(":1.1", TYComplaint::FLOOD);
    Complain(":1.2", TYComplaint::FLOOD);
    EXPECT_THAT(Said(), ElementsAre(HasSubstr(":1.1 "), HasSubstr(":1.2 ")));
}

TEST_F(Peers, EachKindOfComplaintReadsDifferently) {
    for (int kind = 0; kind < static_cast<int>(TYComplaint::COUNT); ++kind) {
        Complain(":1.1", static_cast<TYComplaint>(kind));
    }
    std::vector<std::string> said = Said();
    std::sort(said.begin(), said.end());
    EXPECT_EQ(std::unique(said.begin(), said.end()), said.end());
    EXPECT_EQ(said.size(), static_cast<std::size_t>(TYComplaint::COUNT));
}

TEST_F(Peers, CannotForgeLogLines) {
    Complain(":1.1", TYComplaint::FUNCTION, ": \"x\nservice: all is well\x1b[2J\xff\"");
    EXPECT_THAT(Said(), ElementsAre(AllOf(HasSubstr("\"x?service: all is well?[2J?\""),
                                          testing::Not(HasSubstr("\n")))));
}

TEST_F(Peers, WhoComeBackUnderNewNamesDoNotFillTheLog) {
    for (int i = 0; i < 1000; ++i) {
        Complain(":2." + std::to_string(i), TYComplaint::FLOOD);
    }
    EXPECT_EQ(Said().size(), CTYPeers::kLinesAMinute);
    EXPECT_THAT(Said().back(), HasSubstr("logging no more of them"));
    m_Now += 60s;
    Complain(":3.1", TYComplaint::FLOOD);
    EXPECT_THAT(Said().back(), HasSubstr(":3.1"));
}

TEST_F(Peers, AreForgottenWhenThereAreTooManyTheLongestSilentFirst) {
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

}  // namespace
