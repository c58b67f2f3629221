// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFixture.h"
#include "Program.h"

#include <csignal>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

class DaemonLifecycle : public CDaemonTest {
  protected:
    Result RunToItsEnd(const std::string& file) const {
        return RunProgram({TALLYRA_SERVICE, "--address", m_Bus.Address(), "--db", file});
    }
};

TEST_F(DaemonLifecycle, IsReadyOnceItServes) {
    Start();
    EXPECT_EQ(m_Caller.Kick(), kAlive);
    EXPECT_TRUE(Logs("serving org.veltra.tv.tallyra.service"));
}

TEST_F(DaemonLifecycle, ServesTheSystemBusByDefault) {
    m_Bus.BecomeSystemBus();
    const CProgram daemon({TALLYRA_SERVICE, "--db", ":memory:"});
    EXPECT_TRUE(Eventually([this] { return m_Caller.Kick() == kAlive; }));
}

TEST_F(DaemonLifecycle, StopsOnSignalsWithOneCompleteFile) {
    std::int64_t stored = 0;
    for (const int signal : {SIGTERM, SIGINT}) {
        Start();
        ASSERT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START})), kAccepted);
        m_pDaemon->Signal(signal);
        EXPECT_EQ(m_pDaemon->WaitForExit(), 0);
        EXPECT_THAT(Log(), HasSubstr("stopped"));
        EXPECT_FALSE(std::filesystem::exists(m_File.string() + "-wal"));
        EXPECT_EQ(Stored(), ++stored);
    }
}

TEST_F(DaemonLifecycle, AnswersTheBatchesReceivedBeforeItStops) {
    Start();
    m_pDaemon->Pause();
    for (int i = 0; i < 50; ++i) {
        m_Caller.Begin(MakeCall("p1", {TY_EVENT_PLAYBACK_TIME, TY_EVENT_PLAYBACK_TIME}));
    }
    m_Caller.WaitForTheBus();
    m_pDaemon->Signal(SIGTERM);
    m_pDaemon->Resume();
    EXPECT_EQ(m_Caller.CountAnswers(kAccepted), 50U);
    EXPECT_EQ(m_pDaemon->WaitForExit(), 0);
    EXPECT_EQ(Stored(), 100);
}

TEST_F(DaemonLifecycle, LosesNothingAcceptedWhenKilled) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START, TY_EVENT_STOP})), kAccepted);
    m_pDaemon->Signal(SIGKILL);
    ASSERT_EQ(m_pDaemon->WaitForExit(), 128 + SIGKILL);
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_PAUSE})), kAccepted);
    EXPECT_THAT(Column("SELECT event FROM records ORDER BY id"), ElementsAre("1", "2", "3"));
    EXPECT_EQ(Number("SELECT count(*) FROM playbacks"), 1);
}

TEST_F(DaemonLifecycle, ReopensItsPathOnHangup) {
    Start();
    const auto moved = m_Folder.Path() / "moved.db";
    ASSERT_EQ(m_Caller.Call(MakeCall("old", {TY_EVENT_START})), kAccepted);
    std::filesystem::rename(m_File, moved);
    ASSERT_EQ(m_Caller.Call(MakeCall("between", {TY_EVENT_START})), kAccepted);
    m_pDaemon->Signal(SIGHUP);
    ASSERT_TRUE(Logs("storing records in", 2));
    ASSERT_EQ(m_Caller.Call(MakeCall("new", {TY_EVENT_START})), kAccepted);
    const char* pPlaybacks = "SELECT playback_id FROM playbacks ORDER BY id";
    EXPECT_THAT(Column(pPlaybacks), ElementsAre("new"));
    EXPECT_THAT(CFileReader(moved).Column(pPlaybacks), ElementsAre("old", "between"));
}

TEST_F(DaemonLifecycle, RefusesToStartTwice) {
    Start();
    const std::string file = m_Folder.Path() / "second.db";
    const Result second = RunToItsEnd(file);
    EXPECT_EQ(second.code, 1);
    EXPECT_THAT(second.err, AllOf(HasSubstr("org.veltra.tv.tallyra.service is already owned by :"),
                                  HasSubstr("process " + std::to_string(m_pDaemon->Pid()) +
                                            " (tallyra-service)")));
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(m_Caller.Kick(), kAlive);
}

TEST_F(DaemonLifecycle, FailsWithoutABus) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START})), kAccepted);
    m_Bus.Stop();
    EXPECT_EQ(m_pDaemon->WaitForExit(), 1);
    EXPECT_THAT(Log(), HasSubstr("lost the connection to the bus"));
    EXPECT_EQ(Stored(), 1);
    const Result next = RunToItsEnd(m_File);
    EXPECT_EQ(next.code, 1);
    EXPECT_THAT(next.err, HasSubstr("tallyra-service: cannot connect to the bus: "));
}

TEST_F(DaemonLifecycle, RefusesInvalidArguments) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"--max-age", "0"}, {"--max-size", "-1"}, {"--rate", "-1"}, {"--colour"}, {"word"}}) {
        std::vector<std::string> command = {TALLYRA_SERVICE, "--address", m_Bus.Address()};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const Result result = RunProgram(command);
        EXPECT_GT(result.code, 1) << arguments[0];
        EXPECT_THAT(result.err, Not(HasSubstr("serving"))) << arguments[0];
    }
}

TEST_F(DaemonLifecycle, CreatesTheFolderOfItsFile) {
    const std::string file = m_Folder.Path() / "deep" / "down" / "t.db";
    StartOn(file);
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START})), kAccepted);
    EXPECT_TRUE(std::filesystem::exists(file));
}

}  // namespace
