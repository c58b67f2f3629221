// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStorePath.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

namespace {

constexpr uid_t kSomebody = 65534;

// The path is asked for in a process of its own, which may become somebody else.
void PrintPathOf(uid_t uid, const char* pState, const char* pHome) {
    pState != nullptr ? setenv("XDG_STATE_HOME", pState, 1) : unsetenv("XDG_STATE_HOME");
    pHome != nullptr ? setenv("HOME", pHome, 1) : unsetenv("HOME");
    if (geteuid() != uid && (geteuid() != 0 || seteuid(uid) != 0)) {
        _exit(1);
    }
    const std::string path = DefaultStorePath() + "\n";
    _exit(write(STDERR_FILENO, path.data(), path.size()) > 0 ? 0 : 1);
}

uid_t User() {
    return geteuid() == 0 ? kSomebody : geteuid();
}

TEST(StorePath, OfRootIsInVar) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can ask for root's path";
    }
    EXPECT_EXIT(PrintPathOf(0, "/state", "/home"), testing::ExitedWithCode(0),
                "^/var/lib/tallyra/tallyra.db\n$");
}

TEST(StorePath, OfAUserIsInTheStateFolder) {
    EXPECT_EXIT(PrintPathOf(User(), "/state", "/home"), testing::ExitedWithCode(0),
                "^/state/tallyra/tallyra.db\n$");
}

TEST(StorePath, OfAUserWithoutAStateFolderIsInTheHomeFolder) {
    EXPECT_EXIT(PrintPathOf(User(), nullptr, "/home"), testing::ExitedWithCode(0),
                "^/home/.local/state/tallyra/tallyra.db\n$");
    EXPECT_EXIT(PrintPathOf(User(), "not/absolute", "/home"), testing::ExitedWithCode(0),
                "^/home/.local/state/tallyra/tallyra.db\n$");
}

TEST(StorePath, OfAUserWithoutAHomeIsAbsolute) {
    EXPECT_EXIT(PrintPathOf(User(), "", nullptr), testing::ExitedWithCode(0),
                "^/.local/state/tallyra/tallyra.db\n$");
}

}  // namespace
