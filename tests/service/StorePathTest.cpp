// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStorePath.h"

#include "AsUser.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

void Set(const char* pVariable, const char* pValue) {
    pValue != nullptr ? setenv(pVariable, pValue, 1) : unsetenv(pVariable);
}

std::string PathWith(const char* pState, const char* pHome) {
    Set("XDG_STATE_HOME", pState);
    Set("HOME", pHome);
    return DefaultStorePath();
}

TEST(StorePath, OfAUserFollowsTheEnvironment) {
    const CAsUser user(kNobody);
    EXPECT_EQ(PathWith("/state", "/home"), "/state/tallyra/tallyra.db");
    EXPECT_EQ(PathWith(nullptr, "/home"), "/home/.local/state/tallyra/tallyra.db");
    EXPECT_EQ(PathWith("not/absolute", "/home"), "/home/.local/state/tallyra/tallyra.db");
    EXPECT_EQ(PathWith("", nullptr), "/.local/state/tallyra/tallyra.db");
}

TEST(StorePath, OfRootIsInVar) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "DefaultStorePath asks for the effective user, and only root can be root";
    }
    EXPECT_EQ(PathWith("/state", "/home"), "/var/lib/tallyra/tallyra.db");
}

}  // namespace
