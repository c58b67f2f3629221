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
