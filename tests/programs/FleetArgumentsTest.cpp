// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

#include <sysexits.h>

namespace {

using testing::HasSubstr;
using Words = std::vector<std::string>;

const std::string kForward = PROGRAMS "tallyra-forward";
const std::string kCollect = PROGRAMS "tallyra-collect";
// Nothing listens there.
const Words kServer = {"--server", "nats://127.0.0.1:1"};

const struct {
    const std::string& program;
    Words arguments;
    const char* pError;
} kWrong[] = {
    {kForward, {"--once"}, "--server is required"},
    {kForward, {"--server", "x"}, "name the device with --device, or give --credentials"},
    {kForward, {"--server", "x", "--nonsense"}, "not expected: --nonsense"},
    {kForward, {"--server", "x", "--once", "--follow"}, "--once excludes --follow"},
    {kForward, {"--server", "x", "--once", "--every", "5"}, "--once excludes --every"},
    {kForward, {"--server", "x", "--every", "0"}, "--every: Value 0 not in range"},
    {kForward,
     {"--server", "x", "--bytes-per-day", "-1"},
     "--bytes-per-day: Value -1 not in range 0"},
    {kForward, {"--server", "x", "--device", "*"}, "digits, '_' and '-', not: *"},
    {kForward, {"--server", "x", "--device", ">"}, "digits, '_' and '-', not: >"},
    {kForward, {"--server", "x", "--device", "a.b"}, "digits, '_' and '-', not: a.b"},
    {kForward, {"--server", "x", "--ca", "/nowhere"}, "--ca: File does not exist: /nowhere"},
    {kCollect, {"--server", "x"}, "--db is required"},
    {kCollect, {"--db", "x"}, "--server is required"},
    {kCollect, {"--server", "x", "--db", ""}, "--db: the name is empty"},
    {kCollect, {"--server", "x", "--db", "x", "--replicas", "6"}, "--replicas: Value 6 not in"},
    {kCollect, {"--server", "x", "--db", "x", "--stream-bytes", "0"}, "Value 0 not in range 1"},
    {kCollect, {"--server", "x", "--db", "x", "--batch", "0"}, "--batch: Value 0 not in range"},
    {kCollect, {"--server", "x", "--db", "x", "--keep-days", "0"}, "--keep-days: Value 0 not in"},
};

class FleetArguments : public CCommandTest {
  protected:
    static Result Run(const std::string& program, const Words& arguments,
                      const Words& environment = {}) {
        Words words = {"env", "--unset=TALLYRA_SERVER", "--unset=TALLYRA_DB",
                       "--unset=TALLYRA_DEVICE", "LOGSVC_OUTPUT=stderr"};
        words.insert(words.end(), environment.begin(), environment.end());
        words.push_back(program);
        words.insert(words.end(), arguments.begin(), arguments.end());
        return RunProgram(words);
    }
    Result Forward() const {
        return Run(kForward, {kServer[0], kServer[1], "--once", "--device", "a", "--db", Db()});
    }
    Result Collect() const { return Run(kCollect, {kServer[0], kServer[1], "--db", Db()}); }

    static void ExpectLine(const Result& result, int code, const std::string& text) {
        EXPECT_EQ(result.code, code);
        EXPECT_EQ(result.out, "");
        ASSERT_EQ(LinesOf(result.err).size(), 1U) << result.err;
        EXPECT_THAT(result.err, HasSubstr(text));
        EXPECT_THAT(result.err, testing::Not(HasSubstr("trying again")));
    }
    void ExpectUntouched(const std::string& before) const {
        EXPECT_EQ(ReadFile(Db()), before);
        const std::filesystem::directory_iterator files(m_Folder.Path());
        EXPECT_EQ(std::distance(begin(files), end(files)), 1);
    }
};

TEST_F(FleetArguments, ThatAreWrongAreExplainedInALine) {
    for (const auto& one : kWrong) {
        SCOPED_TRACE(one.pError);
        const Result result = Run(one.program, one.arguments);
        EXPECT_EQ(result.code, EX_USAGE);
        EXPECT_EQ(result.out, "");
        ASSERT_FALSE(result.err.empty());
        EXPECT_THAT(LinesOf(result.err)[0], HasSubstr(one.pError));
    }
}

TEST_F(FleetArguments, MustNameCredentialsOfADevice) {
    for (const char* pText :
         {"", "text", "-----BEGIN NATS USER JWT-----\n", "-----BEGIN NATS USER JWT-----\na.b.c\n",
          "-----BEGIN NATS USER JWT-----\na.eyJuYW1lIjo3fQ.c\n"}) {
        m_Folder.Write("device.creds", pText);
        ExpectLine(Run(kForward,
                       {kServer[0], kServer[1], "--once", "--credentials", File("device.creds")}),
                   EX_USAGE, File("device.creds") + " does not contain credentials of a device");
    }
    // The name is "a.b".
    m_Folder.Write("device.creds", "-----BEGIN NATS USER JWT-----\na.eyJuYW1lIjoiYS5iIn0.c\n");
    ExpectLine(
        Run(kForward, {kServer[0], kServer[1], "--once", "--credentials", File("device.creds")}),
        EX_USAGE, "digits, '_' and '-', not: a.b");
}

TEST_F(FleetArguments, MayNameAMissingStoreWhichIsNotCreated) {
    ExpectLine(Forward(), EX_TEMPFAIL, "no store that this user can write to at " + Db());
    EXPECT_TRUE(std::filesystem::is_empty(m_Folder.Path()));
}

TEST_F(FleetArguments, MayNameAnotherFileWhichIsNotChanged) {
    const std::string text(8192, 'x');
    m_Folder.Write("tallyra.db", text);
    ExpectLine(Forward(), EX_TEMPFAIL, Db() + ": file is not a database");
    ExpectLine(Collect(), EX_CONFIG, Db() + ": file is not a database");
    ExpectUntouched(text);
}

TEST_F(FleetArguments, MayNameADatabaseOfAnotherApplicationWhichIsNotChanged) {
    Execute("PRAGMA application_id = 7");
    Execute("CREATE TABLE theirs(x)");
    const std::string before = ReadFile(Db());
    ASSERT_FALSE(before.empty());
    ExpectLine(Forward(), EX_TEMPFAIL, Db() + ": the database belongs to another application");
    ExpectLine(Collect(), EX_CONFIG, Db() + ": the database belongs to another application");
    ExpectUntouched(before);
}

TEST_F(FleetArguments, MayNameAStoreOfANewerVersionWhichIsNotChanged) {
    Store({}, WholePlayback());
    Execute("PRAGMA user_version = 99");
    ExpectLine(Forward(), EX_TEMPFAIL, Db() + ": the database has schema version 99");
    ExpectLine(Collect(), EX_CONFIG, Db() + ": the database has schema version 99");
    EXPECT_EQ(Number("PRAGMA user_version"), 99);
}

TEST_F(FleetArguments, MayNameServersThatDoNotAnswer) {
    Store({}, WholePlayback());
    const auto stored = Stored();
    ExpectLine(Forward(), EX_TEMPFAIL, "cannot connect: ");
    EXPECT_EQ(Stored(), stored);
}

TEST_F(FleetArguments, MayComeFromTheEnvironment) {
    m_Folder.Write("tallyra.db", std::string(8192, 'x'));
    const Words environment = {"TALLYRA_SERVER=" + kServer[1], "TALLYRA_DB=" + Db(),
                               "TALLYRA_DEVICE=a"};
    ExpectLine(Run(kForward, {"--once"}, environment), EX_TEMPFAIL,
               Db() + ": file is not a database");
    ExpectLine(Run(kCollect, {}, environment), EX_CONFIG, Db() + ": file is not a database");
    ExpectLine(Run(kForward, {"--once", "--db", File("other.db")}, environment), EX_TEMPFAIL,
               "no store that this user can write to at " + File("other.db"));
}

TEST_F(FleetArguments, IncludeHelpAndVersion) {
    for (const std::string& program : {kForward, kCollect}) {
        const Result version = Run(program, {"--version"});
        EXPECT_EQ(version.code, EX_OK);
        EXPECT_THAT(version.out, testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+\n"));
        const Result help = Run(program, {"--help"});
        EXPECT_EQ(help.code, EX_OK);
        EXPECT_EQ(help.err, "");
        EXPECT_THAT(help.out,
                    HasSubstr("Usage: " + std::filesystem::path(program).filename().string()));
    }
}

}  // namespace
