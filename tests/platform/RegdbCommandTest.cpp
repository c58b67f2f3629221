// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TemporaryFolder.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct Outcome {
    int exitCode;
    std::string output;  // of both streams
};

class CRegdbCommandTest : public testing::Test {
  protected:
    CRegdbCommandTest() {
        setenv("REGDB_FILE", (m_Folder.Path() / "deep/down/regdb.ini").c_str(), 1);
    }

    static Outcome Run(const std::string& words) {
        Outcome outcome{-1, ""};
        FILE* pPipe = popen((std::string(REGDB_COMMAND) + " " + words + " 2>&1").c_str(), "r");
        std::array<char, 256> part;
        while (fgets(part.data(), part.size(), pPipe) != nullptr) {
            outcome.output += part.data();
        }
        outcome.exitCode = WEXITSTATUS(pclose(pPipe));
        return outcome;
    }

    /// @return the number on the next line, -100 where there is none
    static long NextNumber(FILE* pPipe) {
        std::array<char, 32> line;
        return fgets(line.data(), line.size(), pPipe) != nullptr
                   ? std::strtol(line.data(), nullptr, 10)
                   : -100;
    }

    CTemporaryFolder m_Folder;
};

TEST_F(CRegdbCommandTest, SetMakesTheStoreAndGetReadsIt) {
    EXPECT_EQ(Run("set db/tallyra/log_on 1").exitCode, 0);
    EXPECT_EQ(Run("get db/tallyra/log_on").output, "1\n");
    EXPECT_EQ(Run("set db/tallyra/log_on -3").exitCode, 0);
    EXPECT_EQ(Run("get db/tallyra/log_on").output, "-3\n");
}

TEST_F(CRegdbCommandTest, ListShowsEveryKey) {
    Run("set db/tallyra/log_on 1");
    Run("set db/other/a 2");
    EXPECT_EQ(Run("list").output, "db/tallyra/log_on 1\ndb/other/a 2\n");
}

TEST_F(CRegdbCommandTest, FailuresSayWhatIsWrong) {
    const Outcome missing = Run("get db/tallyra/log_on");
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.output, "regdb: db/tallyra/log_on: there is no store yet (-2)\n");
    const Outcome noKey = Run("set nokey 1");
    EXPECT_EQ(noKey.exitCode, 1);
    EXPECT_EQ(noKey.output, "regdb: nokey: not a key (-1)\n");
    const Outcome noNumber = Run("set db/a/b yes");
    EXPECT_EQ(noNumber.exitCode, 2);
    EXPECT_EQ(noNumber.output, "regdb: \"yes\" is not an integer\n");
}

TEST_F(CRegdbCommandTest, WrongUsageShowsTheHelpAndFails) {
    EXPECT_EQ(Run("").exitCode, 2);
    EXPECT_EQ(Run("get").exitCode, 2);
    EXPECT_EQ(Run("--help").exitCode, 0);
    EXPECT_EQ(Run("get").output, Run("--help").output);
}

TEST_F(CRegdbCommandTest, WatchPrintsTheValueNowAndAfterEachChange) {
    Run("set db/tallyra/log_on 1");
    const std::string command = "echo $$; exec timeout 60 " REGDB_COMMAND " watch ";
    FILE* pPipe = popen((command + "db/tallyra/log_on").c_str(), "r");
    const auto pid = static_cast<pid_t>(NextNumber(pPipe));
    ASSERT_GT(pid, 0);
    EXPECT_EQ(NextNumber(pPipe), 1);
    Run("set db/tallyra/log_on 0");
    EXPECT_EQ(NextNumber(pPipe), 0);
    kill(pid, SIGTERM);
    pclose(pPipe);
}

}  // namespace
