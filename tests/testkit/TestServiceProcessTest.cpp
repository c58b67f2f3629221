// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// tallyra-testservice as a process: its arguments, its exit codes, and what it leaves behind.

#include "Program.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

/// Runs a shell command on the service's bus.
Result RunShell(std::vector<std::string> options, const std::string& script) {
    options.insert(options.begin(), TESTSERVICE);
    options.insert(options.end(), {"--run", "sh", "-c", script});
    return RunProgram(options);
}

bool HasEnded(pid_t pid) {
    return kill(pid, 0) != 0 && errno == ESRCH;
}

/// @return how many processes have this text in their environment
int CountWith(const std::string& text) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        count += ReadFile(entry.path() / "environ").find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

/// A service whose program starts another one in a session of its own, and hangs. All processes
/// have the folder's name in their environment.
class CHangingProgram {
  public:
    explicit CHangingProgram(const std::vector<std::string>& options, const std::string& shell = "")
        : m_Service(Command(options, shell)) {
        EXPECT_TRUE(
            Eventually([&] { return m_Folder.Read("pids").find("end") != std::string::npos; }));
        std::istringstream(m_Folder.Read("pids")) >> m_nShell >> m_nSleep;
        EXPECT_FALSE(HasEnded(m_nShell));
        EXPECT_FALSE(HasEnded(m_nSleep));
    }

    CProgram& Service() { return m_Service; }
    /// @return whether the program, what it started, and the bus end soon
    bool AllEnd() const {
        return Eventually([&] {
            return HasEnded(m_nShell) && HasEnded(m_nSleep) && CountWith(m_Folder.Path()) == 0;
        });
    }

  private:
    std::vector<std::string> Command(const std::vector<std::string>& options,
                                     const std::string& shell) const {
        std::vector<std::string> command{"env", "KIT_TEST=" + m_Folder.Path().string(),
                                         TESTSERVICE};
        command.insert(command.end(), options.begin(), options.end());
        const std::string pids = "'" + (m_Folder.Path() / "pids").string() + "'";
        command.insert(command.end(), {"--run", "sh", "-c",
                                       shell + "setsid sleep 1000 & echo $$ $! end >" + pids +
                                           "; while true; do sleep 1000; done"});
        return command;
    }

    CTemporaryFolder m_Folder;
    CProgram m_Service;
    pid_t m_nShell = -1;
    pid_t m_nSleep = -1;
};

TEST(TestServiceProcess, ExitsWithTheStatusOfItsProgram) {
    EXPECT_EQ(RunShell({}, "exit 0").code, 0);
    EXPECT_EQ(RunShell({}, "exit 7").code, 7);
    EXPECT_EQ(RunShell({}, "kill -KILL $$").code, 128 + SIGKILL);
}

TEST(TestServiceProcess, PassesArgumentsAndStandardInputOn) {
    const Result result =
        RunProgram({TESTSERVICE, "--run", "sh", "-c", "cat; echo \"$@\"", "x", "--refuse", "--run"},
                   "input\n");
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_THAT(result.out, StartsWith("input\n--refuse --run\n"));
}

TEST(TestServiceProcess, GivesItsProgramAnotherSystemBusAndTheOldSessionBus) {
    const Result result = RunProgram(
        {"env", "DBUS_SESSION_BUS_ADDRESS=session", "DBUS_SYSTEM_BUS_ADDRESS=system", TESTSERVICE,
         "--run", "sh", "-c", "echo $DBUS_SESSION_BUS_ADDRESS $DBUS_SYSTEM_BUS_ADDRESS"});
    EXPECT_THAT(result.out, StartsWith("session unix:"));
}

TEST(TestServiceProcess, RefusesWrongArguments) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"--sing"}, "--sing"},
        {{"program"}, "program"},
        {{"--run"}, "--run"},
        {{"--slow", "soon", "--run", "true"}, "--slow"},
        {{"--after", "-1", "--run", "true"}, "--after"},
        {{"--timeout", "0", "--run", "true"}, "--timeout"},
        {{"--timeout", "1"}, "--run"},
        {{"--on", "kick", "--run", "true"}, "--on"}};
    for (const auto& [arguments, text] : cases) {
        std::vector<std::string> command = arguments;
        command.insert(command.begin(), TESTSERVICE);
        const Result result = RunProgram(command);
        EXPECT_EQ(result.code, 125);
        EXPECT_THAT(result.err, HasSubstr(text));
    }
}

TEST(TestServiceProcess, SaysWhatItCannotDo) {
    Result result = RunProgram({TESTSERVICE, "--run", "/nowhere/player"});
    EXPECT_EQ(result.code, 127);
    EXPECT_THAT(result.err, HasSubstr("/nowhere/player"));
    result = RunProgram({TESTSERVICE, "--output", "/nowhere/records", "--run", "true"});
    EXPECT_EQ(result.code, 125);
    EXPECT_THAT(result.err, HasSubstr("cannot write /nowhere/records: No such file"));
    result = RunProgram({TESTSERVICE, "--output", "/dev/full", "--run", "true"});
    EXPECT_EQ(result.code, 125);
    EXPECT_THAT(result.err, HasSubstr("cannot write /dev/full"));
    result = RunProgram({"env", "PATH=/nowhere", TESTSERVICE, "--run", "/bin/true"});
    EXPECT_EQ(result.code, 125);
    EXPECT_THAT(result.err, HasSubstr("dbus-daemon"));
    result = RunProgram({"env", "TMPDIR=/nowhere", TESTSERVICE, "--run", "true"});
    EXPECT_EQ(result.code, 125);
    EXPECT_THAT(result.err, HasSubstr("/nowhere"));
}

TEST(TestServiceProcess, SaysThatItsBusDoesNotStart) {
    const CTemporaryFolder folder;
    const std::filesystem::path tooLong = folder.Path() / std::string(100, 'x');
    std::filesystem::create_directory(tooLong);
    const Result result =
        RunProgram({"env", "TMPDIR=" + tooLong.string(), TESTSERVICE, "--run", "true"});
    EXPECT_EQ(result.code, 125);
    EXPECT_THAT(result.err, HasSubstr("dbus-daemon does not start"));
    EXPECT_TRUE(std::filesystem::is_empty(tooLong));
}

TEST(TestServiceProcess, ServesWithoutAProgramUntilASignal) {
    for (const int signal : {SIGINT, SIGTERM}) {
        CProgram service({TESTSERVICE});
        EXPECT_TRUE(Eventually([&] {
            return service.Errors().find("DBUS_SYSTEM_BUS_ADDRESS=unix:") != std::string::npos;
        }));
        service.Signal(signal);
        const Result result = service.Finish();
        EXPECT_EQ(result.code, 0);
        EXPECT_EQ(result.out, "{\"end\":true,\"rows\":0}\n");
    }
}

TEST(TestServiceProcess, EndsAHangingProgramAfterItsTime) {
    CHangingProgram program({"--timeout", "1"});
    const Result result = program.Service().Finish();
    EXPECT_EQ(result.code, 124);
    EXPECT_THAT(result.err, HasSubstr("still runs after 1 s"));
    EXPECT_TRUE(program.AllEnd());
}

TEST(TestServiceProcess, KillsAProgramThatIgnoresSigterm) {
    CHangingProgram program({}, "trap '' TERM; ");
    program.Service().Signal(SIGTERM);
    EXPECT_EQ(program.Service().Finish().code, 128 + SIGTERM);
    EXPECT_TRUE(program.AllEnd());
}

TEST(TestServiceProcess, EndsAllThatItStartedOnASignal) {
    for (const int signal : {SIGINT, SIGTERM}) {
        CHangingProgram program({});
        program.Service().Signal(signal);
        const Result result = program.Service().Finish();
        EXPECT_EQ(result.code, 128 + signal);
        EXPECT_EQ(result.out, "{\"end\":true,\"rows\":0}\n");
        EXPECT_TRUE(program.AllEnd());
    }
}

// As Ctrl-C does, and timeout(1).
TEST(TestServiceProcess, EndsInOrderIfItsWholeGroupIsSignalled) {
    const Result result =
        RunProgram({"timeout", "--preserve-status", "1", TESTSERVICE, "--run", "sleep", "1000"});
    EXPECT_EQ(result.code, 128 + SIGTERM);
    EXPECT_EQ(result.out, "{\"end\":true,\"rows\":0}\n");
}

TEST(TestServiceProcess, TakesItsBusAndItsProgramWithItIfItIsKilled) {
    const CTemporaryFolder folder;
    const std::string mark = folder.Path();
    // Its folder, which it cannot remove any more, goes with the test's.
    CProgram service(
        {"env", "TMPDIR=" + mark, TESTSERVICE, "--run", "sh", "-c", "echo up; exec sleep 1000"});
    ASSERT_TRUE(service.Prints("up"));
    // A process that replaces its program has no environment for a moment.
    EXPECT_TRUE(Eventually([&] { return CountWith(mark) >= 3; }));
    service.Signal(SIGKILL);
    EXPECT_EQ(service.Finish().code, 128 + SIGKILL);
    EXPECT_TRUE(Eventually([&] { return CountWith(mark) == 0; }));
}

TEST(TestServiceProcess, EndsWhatItsProgramLeavesBehind) {
    const Result result = RunShell({}, "setsid sleep 1000 & echo $!");
    EXPECT_EQ(result.code, 0);
    EXPECT_TRUE(HasEnded(std::atoi(result.out.c_str())));
}

}  // namespace
