// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

using CPoliciesTest = CStoreTest;

TEST_F(CPoliciesTest, AreListedAsTheyWereSet) {
    CTYStore store(Db());
    EXPECT_EQ(Run({"policy", "set", "org.example.player", "0"}).code, 0);
    EXPECT_EQ(Run({"policy", "set", "*", "1"}).code, 0);

    const auto rows = RunForJson({"policy", "list"});
    EXPECT_THAT(Each<std::string>(rows, "application"), ElementsAre("*", "org.example.player"));
    EXPECT_THAT(Each<int>(rows, "policy"), ElementsAre(1, 0));
    EXPECT_THAT(Run({"policy", "list"}).out, HasSubstr("org.example.player       0"));
    EXPECT_THAT(ParseCsv(Run({"policy", "list", "--format", "csv"}).out), SizeIs(3));
}

TEST_F(CPoliciesTest, TakeEffectWhileTheServiceHasTheStoreOpen) {
    CTYStore store(Db());
    EXPECT_EQ(store.Policy("org.example.player"), 1);
    ASSERT_EQ(Run({"policy", "set", "org.example.player", "0"}).code, 0);
    EXPECT_EQ(store.Policy("org.example.player"), 0);
    ASSERT_EQ(Run({"policy", "set", "org.example.player", "7"}).code, 0);
    EXPECT_EQ(store.Policy("org.example.player"), 7);
    ASSERT_EQ(Run({"policy", "unset", "org.example.player"}).code, 0);
    EXPECT_EQ(store.Policy("org.example.player"), 1);
}

TEST_F(CPoliciesTest, OfTheStarHoldForAllOthers) {
    CTYStore store(Db());
    ASSERT_EQ(Run({"policy", "set", "*", "0"}).code, 0);
    ASSERT_EQ(Run({"policy", "set", "org.example.player", "1"}).code, 0);
    EXPECT_EQ(store.Policy("org.example.player"), 1);
    EXPECT_EQ(store.Policy("org.example.other"), 0);
}

TEST_F(CPoliciesTest, CannotBeSetWhileAnotherHoldsTheStore) {
    CTYStore store(Db());
    CTYDatabase other(Db(), CTYDatabase::Mode::READ_WRITE);
    const CTYTransaction transaction(other);
    const Result result = Run({"policy", "set", "org.example.player", "0"});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "tallyra: database is locked\n");
    EXPECT_EQ(store.Policy("org.example.player"), 1);
}

TEST_F(CPoliciesTest, LeaveTheRecordsAlone) {
    Store({}, WholePlayback(), NowNs());
    const std::string before = Run({"export"}).out;
    ASSERT_EQ(Run({"policy", "set", "org.example.player", "0"}).code, 0);
    EXPECT_EQ(Run({"export"}).out, before);
}

}  // namespace
