// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

class Policies : public CCommandTest {
  protected:
    void Policy(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "policy");
        EXPECT_EQ(Run(arguments).code, 0);
    }

    CTYStore m_Store{m_File};
};

TEST_F(Policies, AreListedAsTheyWereSet) {
    Policy({"set", "org.example.player", "0"});
    Policy({"set", "*", "1"});
    const auto rows = RunForJson({"policy", "list"});
    EXPECT_THAT(Each<std::string>(rows, "application"), ElementsAre("*", "org.example.player"));
    EXPECT_THAT(Each<int>(rows, "policy"), ElementsAre(1, 0));
    EXPECT_THAT(Run({"policy", "list"}).out, HasSubstr("org.example.player       0"));
    EXPECT_THAT(ParseCsv(Run({"policy", "list", "--format", "csv"}).out), SizeIs(3));
}

TEST_F(Policies, AreInForceAsEachChangePrints) {
    const struct {
        std::vector<std::string> change;
        const char* pApplication;
        int policy;
        std::vector<int> uids;
    } steps[] = {{{"policy", "set", "org.a", "0"}, "org.a", 0, {}},
                 {{"policy", "bind", "org.a", "1000", "7"}, "org.a", 0, {7, 1000}},
                 {{"policy", "unbind", "org.a", "7"}, "org.a", 0, {1000}},
                 {{"policy", "unset", "org.a"}, "*", 1, {}},
                 {{"policy", "set", "*", "0"}, "*", 0, {}}};
    for (const auto& step : steps) {
        SCOPED_TRACE(testing::PrintToString(step.change));
        const auto rows = RunForJson(step.change);
        ASSERT_THAT(rows, SizeIs(1));
        EXPECT_EQ(rows[0].at("application"), step.pApplication);
        EXPECT_EQ(rows[0].at("policy"), step.policy);
        EXPECT_EQ(rows[0].at("uids"), nlohmann::json(step.uids));
        EXPECT_EQ(rows[0].at("keep_queries"), false);
    }
}

TEST_F(Policies, TakeEffectInAnOpenStore) {
    const struct {
        std::vector<std::string> change;
        int player;
        int other;
    } steps[] = {{{"set", "org.example.player", "0"}, 0, 1},
                 {{"set", "org.example.player", "7"}, 7, 1},
                 {{"set", "*", "0"}, 7, 0},
                 {{"unset", "org.example.player"}, 0, 0}};
    EXPECT_EQ(m_Store.Policy("org.example.player").value, 1);
    for (const auto& step : steps) {
        SCOPED_TRACE(testing::PrintToString(step.change));
        Policy(step.change);
        EXPECT_EQ(m_Store.Policy("org.example.player").value, step.player);
        EXPECT_EQ(m_Store.Policy("org.example.other").value, step.other);
        EXPECT_EQ(m_Store.Policy("").value, step.other);
    }
}

TEST_F(Policies, BindAnApplicationToUsers) {
    Policy({"bind", "org.example.player", "1000", "1002"});
    Policy({"bind", "org.example.player", "1001", "1000"});
    EXPECT_EQ(RunForJson({"policy", "list"}).at(0).at("uids"), nlohmann::json({1000, 1001, 1002}));
    EXPECT_THAT(Run({"policy", "list", "--format", "csv"}).out, HasSubstr(",1000 1001 1002,false"));
    EXPECT_TRUE(m_Store.Policy("org.example.player").Admits(1001));
    EXPECT_FALSE(m_Store.Policy("org.example.player").Admits(1003));
    EXPECT_FALSE(m_Store.Policy("org.example.player").Admits(std::nullopt));
    EXPECT_TRUE(m_Store.Policy("org.example.other").Admits(1003));
    Policy({"unbind", "org.example.player", "1001", "1007"});
    EXPECT_FALSE(m_Store.Policy("org.example.player").Admits(1001));
    Policy({"unbind", "org.example.player"});
    EXPECT_TRUE(m_Store.Policy("org.example.player").Admits(1003));
}

TEST_F(Policies, BindTheApplicationsWithoutAPolicy) {
    Policy({"bind", "*", "1000"});
    EXPECT_FALSE(m_Store.Policy("org.example.other").Admits(1003));
    Policy({"set", "org.example.other", "1"});
    EXPECT_TRUE(m_Store.Policy("org.example.other").Admits(1003));
}

TEST_F(Policies, AllowAnApplicationThatOnlyHasABinding) {
    Policy({"set", "*", "0"});
    Policy({"bind", "org.example.player", "1000"});
    EXPECT_EQ(m_Store.Policy("org.example.player").value, 1);
    EXPECT_THAT(Each<int>(RunForJson({"policy", "list"}), "policy"), ElementsAre(0, 1));
    Policy({"unbind", "org.example.player"});
    EXPECT_EQ(m_Store.Policy("org.example.player").value, 0);
    Policy({"set", "org.example.player", "0"});
    Policy({"bind", "org.example.player", "1001"});
    EXPECT_EQ(m_Store.Policy("org.example.player").value, 0);
}

TEST_F(Policies, KeepQueriesUntilToldOtherwise) {
    Policy({"set", "org.example.player", "--keep-queries"});
    EXPECT_EQ(m_Store.Policy("org.example.player").value, 1);
    Policy({"set", "org.example.player", "0"});
    const auto row = RunForJson({"policy", "list"}).at(0);
    EXPECT_EQ(row.at("policy"), 0);
    EXPECT_EQ(row.at("keep_queries"), true);
    EXPECT_TRUE(m_Store.Policy("org.example.player").keepQueries);
    Policy({"set", "org.example.player", "--no-keep-queries"});
    EXPECT_FALSE(m_Store.Policy("org.example.player").keepQueries);
    EXPECT_EQ(m_Store.Policy("org.example.player").value, 0);
}

TEST_F(Policies, DoNotAllowARefusedApplicationByKeepingItsQueries) {
    Policy({"set", "*", "0"});
    Policy({"bind", "org.example.bound", "1000"});
    for (const char* pApplication : {"org.example.player", "org.example.bound"}) {
        Policy({"set", pApplication, "--keep-queries"});
    }
    EXPECT_EQ(m_Store.Policy("org.example.player").value, 0);
    EXPECT_EQ(m_Store.Policy("org.example.bound").value, 1);
}

TEST_F(Policies, AreRemovedWithTheirBindings) {
    Policy({"bind", "org.example.player", "1000"});
    Policy({"unset", "org.example.player"});
    EXPECT_THAT(RunForJson({"policy", "list"}), SizeIs(0));
    EXPECT_TRUE(m_Store.Policy("org.example.player").Admits(1003));
}

TEST_F(Policies, CannotBeSetWhileTheStoreIsLocked) {
    CTYDatabase other(Db(), CTYDatabase::Mode::READ_WRITE);
    const CTYTransaction lock(other);
    const Result result = Run({"policy", "set", "org.example.player", "0"});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "tallyra: database is locked\n");
    EXPECT_EQ(m_Store.Policy("org.example.player").value, 1);
}

TEST_F(Policies, DoNotChangeRecords) {
    Store({}, WholePlayback());
    const std::string before = Run({"export"}).out;
    Policy({"set", "org.example.player", "0"});
    EXPECT_EQ(Run({"export"}).out, before);
}

}  // namespace
