// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TemporaryFolder.h"
#include "Test.h"

namespace {

class CRegdbCommandTest : public testing::Test {
  protected:
    CRegdbCommandTest() {
        setenv("REGDB_FILE", (m_Folder.Path() / "deep/down/regdb.ini").c_str(), 1);
    }

    /// @return the output on both streams, and the exit code
    static std::string Run(const std::string& words) {
        std::string output;
        FILE* pPipe = popen((std::string(REGDB_COMMAND) + " " + words + " 2>&1").c_str(), "r");
        std::array<char, 256> part;
        while (fgets(part.data(), part.size(), pPipe) != nullptr) {
            output += part.data();
        }
        return output + std::to_string(WEXITSTATUS(pclose(pPipe)));
    }

    /// @return the number on the next line, -100 at the end of the output
    static long NextNumber(FILE* pPipe) {
        std::array<char, 32> line;
        return fgets(line.data(), line.size(), pPipe) != nullptr
                   ? std::strtol(line.data(), nullptr, 10)
                   : -100;
    }

    CTemporaryFolder m_Folder;
};

TEST_F(CRegdbCommandTest, EachCommandPrintsItsResult) {
    const struct {
        const char* words;
        const char* result;
    } steps[] = {
        {"get db/tallyra/log_on", "regdb: db/tallyra/log_on: the store does not exist yet (-2)\n1"},
        {"set db/tallyra/log_on 1", "0"},
        {"get db/tallyra/log_on", "1\n0"},
        {"set db/tallyra/log_on -3", "0"},
        {"get db/tallyra/log_on", "-3\n0"},
        {"set db/other/a 2", "0"},
        {"list", "db/tallyra/log_on -3\ndb/other/a 2\n0"},
        {"set nokey 1", "regdb: nokey: not a key (-1)\n1"},
        {"set db/a/b yes", "regdb: \"yes\" is not an integer\n2"},
    };
    for (const auto& [words, result] : steps) {
        EXPECT_EQ(Run(words), result) << words;
    }
}

TEST_F(CRegdbCommandTest, WrongUsageShowsTheHelpAndFails) {
    std::string help = Run("--help");
    ASSERT_EQ(help.back(), '0');
    help.back() = '2';
    EXPECT_EQ(Run(""), help);
    EXPECT_EQ(Run("get"), help);
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
