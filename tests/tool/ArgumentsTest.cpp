// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <filesystem>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kNotFound = 3;

class CArgumentsTest : public CStoreTest {
  protected:
    void SetUp() override { Store({}, WholePlayback(), NowNs()); }

    // One line, and nothing that a script could take for rows.
    static void ExpectRefusal(const Result& result, int code, const std::string& text) {
        EXPECT_EQ(result.code, code);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, StartsWith("tallyra: "));
        EXPECT_THAT(result.err, HasSubstr(text));
        EXPECT_EQ(LinesOf(result.err).size(), 1U) << result.err;
    }
};

std::vector<std::string> AsStranger(std::vector<std::string> command) {
    command.insert(command.begin(),
                   {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    return command;
}

const std::vector<std::vector<std::string>> kCommands = {
    {"records"},        {"playbacks"},       {"show"},          {"stats"},  {"decode"},
    {"policy", "list"}, {"policy", "unset"}, {"policy", "set"}, {"export"}, {"policy"}};

const std::vector<std::vector<std::string>> kReaders = {
    {"records"}, {"records", "--follow"}, {"playbacks"}, {"show", "1"},
    {"stats"},   {"policy", "list"},      {"export"},    {"policy", "set", "a", "0"}};

TEST_F(CArgumentsTest, EachCommandExplainsItselfAndItsDatabaseOption) {
    for (const auto& command : kCommands) {
        std::vector<std::string> arguments = command;
        arguments.insert(arguments.begin(), TALLYRA_COMMAND);
        arguments.emplace_back("--help");
        const Result result = RunProgram(arguments);

        EXPECT_EQ(result.code, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_THAT(result.out, HasSubstr("Usage: tallyra " + command[0]));
        if (command != std::vector<std::string>{"policy"}) {
            EXPECT_THAT(result.out, HasSubstr("--db TEXT")) << command[0];
        }
    }
}

TEST_F(CArgumentsTest, TheWholeIsExplainedAndHasAVersion) {
    const Result help = RunProgram({TALLYRA_COMMAND, "--help"});
    EXPECT_EQ(help.code, 0);
    for (const auto& command : kCommands) {
        EXPECT_THAT(help.out, HasSubstr("\n  " + command[0] + " "));
    }
    const Result version = RunProgram({TALLYRA_COMMAND, "--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_THAT(version.out, testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(CArgumentsTest, WrongArgumentsEndWithTwo) {
    const std::vector<std::vector<std::string>> wrong = {{"records", "--limit", "many"},
                                                         {"records", "--since", "yesterdayish"},
                                                         {"records", "--code", "256"},
                                                         {"records", "--code", "NOTHING"},
                                                         {"records", "--format", "xml"},
                                                         {"records", "--raw", "--follow"},
                                                         {"playbacks", "--playback", "x"},
                                                         {"show"},
                                                         {"policy"},
                                                         {"policy", "set", "org.example.player"},
                                                         {"policy", "set", "a", "perhaps"},
                                                         {"export", "--format", "table"},
                                                         {"nonsense"},
                                                         {"records", "unexpected"}};
    for (const auto& arguments : wrong) {
        const Result result = Run(arguments);
        EXPECT_EQ(result.code, kUsage) << arguments[0];
        EXPECT_EQ(result.out, "") << arguments[0];
        EXPECT_NE(result.err, "") << arguments[0];
    }
    EXPECT_EQ(RunProgram({TALLYRA_COMMAND}).code, kUsage);
}

TEST_F(CArgumentsTest, WhatIsNotThereEndsWithThree) {
    ExpectRefusal(Run({"show", "42"}), kNotFound, "no playback 42");
    ExpectRefusal(Run({"policy", "unset", "org.example.other"}), kNotFound,
                  "no policy for org.example.other");
}

TEST_F(CArgumentsTest, AMissingStoreIsSaidAndNotMade) {
    std::filesystem::remove(Db());
    for (const auto& command : kReaders) {
        ExpectRefusal(Run(command), kFailed, "no store at " + Db());
        EXPECT_FALSE(std::filesystem::exists(Db())) << command[0];
    }
}

TEST_F(CArgumentsTest, AFileThatIsNoStoreIsSaidAndLeftAlone) {
    const std::string text(8192, 'x');
    std::filesystem::remove(Db() + "-wal");
    m_Folder.Write("tallyra.db", text);
    for (const auto& command : kReaders) {
        ExpectRefusal(Run(command), kFailed, "cannot read " + Db() + ": file is not a database");
    }
    EXPECT_EQ(ReadFile(Db()), text);
}

TEST_F(CArgumentsTest, AnotherApplicationsDatabaseIsSaid) {
    Damage("PRAGMA application_id = 7");
    for (const auto& command : kReaders) {
        ExpectRefusal(Run(command), kFailed, Db() + ": the database belongs to another application");
    }
}

TEST_F(CArgumentsTest, AStoreOfALaterVersionIsSaid) {
    Damage("PRAGMA user_version = 99");
    for (const auto& command : kReaders) {
        ExpectRefusal(Run(command), kFailed, Db() + ": the database has schema version 99");
    }
}

TEST_F(CArgumentsTest, AStoreThatMayOnlyBeReadTakesItsService) {
    if (geteuid() != 0 || RunProgram(AsStranger({TALLYRA_COMMAND, "--version"})).code != 0) {
        GTEST_SKIP() << "only root can be another user, and that one has to reach the command";
    }
    std::filesystem::permissions(m_Folder.Path(), std::filesystem::perms(0755));
    std::filesystem::permissions(Db(), std::filesystem::perms(0644));
    ExpectRefusal(RunProgram(AsStranger(Command({"records"}))), kFailed,
                  "readable only while tallyra-service runs");

    const CTYStore service(Db());
    EXPECT_EQ(RunProgram(AsStranger(Command({"records"}))).code, 0);
    ExpectRefusal(RunProgram(AsStranger(Command({"policy", "set", "a", "0"}))), kFailed,
                  "attempt to write a readonly database");
}

TEST_F(CArgumentsTest, AStoreThatMayNotBeReadIsSaid) {
    if (geteuid() != 0 || RunProgram(AsStranger({TALLYRA_COMMAND, "--version"})).code != 0) {
        GTEST_SKIP() << "only root can be another user, and that one has to reach the command";
    }
    ExpectRefusal(RunProgram(AsStranger(Command({"records"}))), kFailed,
                  "cannot read " + Db() + ": unable to open database file");
}

TEST_F(CArgumentsTest, AFolderIsNoStore) {
    const Result result =
        RunProgram({TALLYRA_COMMAND, "records", "--db", m_Folder.Path().string()});
    ExpectRefusal(result, kFailed, "cannot read " + m_Folder.Path().string());
}

TEST_F(CArgumentsTest, AnOutputThatIsFullEndsWithOne) {
    for (const auto& command : std::vector<std::vector<std::string>>{
             {"records"}, {"playbacks"}, {"stats"}, {"export"}, {"records", "--raw"}}) {
        const Result result = RunProgram(Command(command), "", "/dev/full");
        EXPECT_EQ(result.code, kFailed) << command[0];
        EXPECT_THAT(result.err, HasSubstr("writing the output failed")) << command[0];
    }
}

TEST_F(CArgumentsTest, ReadingLeavesTheStoreAsItIs) {
    const std::string before = ReadFile(Db());
    const auto time = std::filesystem::last_write_time(Db());
    for (const auto& command : std::vector<std::vector<std::string>>{{"records"},
                                                                     {"playbacks"},
                                                                     {"show", Script().playback},
                                                                     {"stats"},
                                                                     {"policy", "list"},
                                                                     {"export"},
                                                                     {"records", "--raw"}}) {
        EXPECT_EQ(Run(command).code, 0) << command[0];
    }
    EXPECT_EQ(ReadFile(Db()), before);
    EXPECT_EQ(std::filesystem::last_write_time(Db()), time);
}

}  // namespace
