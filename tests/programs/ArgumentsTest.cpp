// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using Commands = std::vector<std::vector<std::string>>;

constexpr int kFailed = 1;
constexpr int kNotFound = 3;

// Commands that read a store and write to standard output.
const Commands kReading = {{"records"},        {"records", "--raw"},
                           {"playbacks"},      {"stats"},
                           {"status"},         {"check"},
                           {"policy", "list"}, {"show", Script().playback},
                           {"export"}};

class Arguments : public CCommandTest {
  protected:
    void SetUp() override { Store({}, WholePlayback()); }

    // One line on standard error, and nothing on standard output that a script could take for rows.
    static void ExpectRefusal(const Result& result, int code, const std::string& text) {
        EXPECT_EQ(result.code, code);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, StartsWith("tallyra: "));
        EXPECT_THAT(result.err, HasSubstr(text));
        EXPECT_EQ(LinesOf(result.err).size(), 1U) << result.err;
    }
    void ExpectUnreadable(const std::string& text) const {
        Commands commands = {{"records", "--follow"},
                             {"policy", "set", "a", "0"},
                             {"policy", "bind", "a", "0"},
                             {"forget", "--all", "--yes"}};
        commands.insert(commands.end(), kReading.begin(), kReading.end());
        for (const auto& command : commands) {
            SCOPED_TRACE(testing::PrintToString(command));
            Result result = Run(command);
            // The service is described all the same.
            if (command[0] == "status") {
                EXPECT_THAT(result.out, HasSubstr("\nstore_error "));
                result.out.clear();
            }
            ExpectRefusal(result, kFailed, text);
        }
    }
};

TEST_F(Arguments, IncludeHelpAndVersion) {
    const Result version = RunProgram({TALLYRA_COMMAND, "--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_THAT(version.out, testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+\n"));
    for (std::vector<std::string> command : kReading) {
        SCOPED_TRACE(testing::PrintToString(command));
        command.insert(command.begin(), TALLYRA_COMMAND);
        command.emplace_back("--help");
        const Result help = RunProgram(command);
        EXPECT_EQ(help.code, 0);
        EXPECT_EQ(help.err, "");
        EXPECT_THAT(help.out, HasSubstr("Usage: tallyra " + command[1]));
        EXPECT_THAT(help.out, HasSubstr("--db TEXT"));
    }
}

TEST_F(Arguments, ThatNameNothingExitWithThree) {
    ExpectRefusal(Run({"show", "42"}), kNotFound, "no playback 42");
    ExpectRefusal(Run({"policy", "unset", "org.example.other"}), kNotFound,
                  "no policy for org.example.other");
    ExpectRefusal(Run({"policy", "unbind", "org.example.other"}), kNotFound,
                  "no binding for org.example.other");
}

TEST_F(Arguments, MayNameAMissingStoreWhichIsNotCreated) {
    std::filesystem::remove(Db());
    ExpectUnreadable("no store at " + Db());
    EXPECT_FALSE(std::filesystem::exists(Db()));
}

TEST_F(Arguments, MayNameAnotherFileWhichIsNotChanged) {
    const std::string text(8192, 'x');
    std::filesystem::remove(Db() + "-wal");
    m_Folder.Write("tallyra.db", text);
    ExpectUnreadable("cannot read " + Db() + ": file is not a database");
    EXPECT_EQ(ReadFile(Db()), text);
    ExpectRefusal(RunProgram({TALLYRA_COMMAND, "records", "--db", m_Folder.Path()}), kFailed,
                  "cannot read " + m_Folder.Path().string());
}

TEST_F(Arguments, MayNameADatabaseThatThisProgramCannotRead) {
    Execute("PRAGMA user_version = 99");
    ExpectUnreadable(Db() + ": the database has schema version 99");
    Execute("PRAGMA application_id = 7");
    ExpectUnreadable(Db() + ": the database belongs to another application");
}

TEST_F(Arguments, ReportAFullOutput) {
    ASSERT_EQ(Run({"policy", "set", "a", "0"}).code, 0);
    Commands commands = kReading;
    commands.push_back({"records", "--follow"});
    for (const auto& command : commands) {
        const Result result = RunProgram(Command(command), "", "/dev/full");
        EXPECT_EQ(result.code, kFailed) << command[0];
        EXPECT_THAT(result.err, HasSubstr("writing the output failed")) << command[0];
    }
}

TEST_F(Arguments, ThatReadDoNotChangeTheStore) {
    const std::string before = ReadFile(Db());
    const auto time = std::filesystem::last_write_time(Db());
    for (const auto& command : kReading) {
        EXPECT_EQ(Run(command).code, 0) << command[0];
    }
    EXPECT_EQ(ReadFile(Db()), before);
    EXPECT_EQ(std::filesystem::last_write_time(Db()), time);
}

}  // namespace
