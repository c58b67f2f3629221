// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Program.h"
#include "Test.h"

namespace {

class CRegdbCommandTest : public testing::Test {
  protected:
    CRegdbCommandTest() {
        setenv("REGDB_FILE", (m_Folder.Path() / "deep/down/regdb.ini").c_str(), 1);
    }

    static std::vector<std::string> Command(const std::string& words) {
        std::istringstream stream(REGDB_COMMAND " " + words);
        return {std::istream_iterator<std::string>(stream), {}};
    }
    /// @return the output on both streams, and the exit code
    static std::string Run(const std::string& words) {
        const Result result = RunProgram(Command(words));
        return result.out + result.err + std::to_string(result.code);
    }

    CTemporaryFolder m_Folder;
};

TEST_F(CRegdbCommandTest, EachCommandPrintsItsResult) {
    constexpr const char* kSteps[][2] = {
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
    for (const auto& [words, result] : kSteps) {
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
    const CProgram watch(Command("watch db/tallyra/log_on"));
    EXPECT_TRUE(watch.Prints("1\n"));
    Run("set db/tallyra/log_on 0");
    EXPECT_TRUE(watch.Prints("1\n0\n"));
}

}  // namespace
