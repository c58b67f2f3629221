// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFixture.h"

#include <csignal>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

class DaemonLifecycle : public CDaemonTest {};

TEST_F(DaemonLifecycle, IsReadyOnceItServes) {
    Start();
    EXPECT_EQ(m_Caller.Call({"Kick", "Kick"}), "(0, 0, 1)");
    EXPECT_TRUE(m_pDaemon->WaitForLog("serving org.veltra.tv.tallyra.service"));
}

TEST_F(DaemonLifecycle, ServesTheSystemBusUnlessTold) {
    m_Bus.BecomeSystemBus();
    m_pDaemon =
        std::make_unique<CDaemon>(m_Folder.Path(), std::vector<std::string>{"--db", ":memory:"});
    ASSERT_TRUE(m_pDaemon->WaitUntilReady());
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {1})), kAccepted);
}

TEST_F(DaemonLifecycle, EndsWhenItIsTold) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Start();
        m_pDaemon->Signal(signal);
        EXPECT_EQ(m_pDaemon->WaitForExit(), 0);
        EXPECT_THAT(m_pDaemon->AllLog(), HasSubstr("stopped"));
    }
}

TEST_F(DaemonLifecycle, FinishesTheBatchesInHandWhenItEnds) {
    Start();
    m_pDaemon->Signal(SIGSTOP);
    for (int i = 0; i < 50; ++i) {
        m_Caller.Begin(MakeCall("p1", {8, 8}));
    }
    m_Caller.WaitForTheBus();
    m_pDaemon->Signal(SIGTERM);
    m_pDaemon->Signal(SIGCONT);
    EXPECT_EQ(m_Caller.CountAnswers(kAccepted), 50U);
    EXPECT_EQ(m_pDaemon->WaitForExit(), 0);
    EXPECT_EQ(Read().Number("SELECT count(*) FROM records"), 100);
}

TEST_F(DaemonLifecycle, LeavesOneFileThatHoldsEverythingWhenItEnds) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {1})), kAccepted);
    m_pDaemon->Signal(SIGTERM);
    ASSERT_EQ(m_pDaemon->WaitForExit(), 0);
    EXPECT_FALSE(std::filesystem::exists(m_File.string() + "-wal"));
    EXPECT_EQ(Read().Number("SELECT count(*) FROM records"), 1);
}

TEST_F(DaemonLifecycle, KeepsWhatItAcceptedWhenItIsKilled) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {1, 2})), kAccepted);
    m_pDaemon->Signal(SIGKILL);
    ASSERT_EQ(m_pDaemon->WaitForExit(), 128 + SIGKILL);
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {3})), kAccepted);
    EXPECT_THAT(Read().Column("SELECT event FROM records ORDER BY id"), ElementsAre("1", "2", "3"));
    EXPECT_EQ(Read().Number("SELECT count(*) FROM playbacks"), 1);
}

TEST_F(DaemonLifecycle, OpensANewFileOnceTheOldOneWasMovedAway) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("old", {1})), kAccepted);
    std::filesystem::rename(m_File, m_Folder.Path() / "moved.db");
    ASSERT_EQ(m_Caller.Call(MakeCall("between", {1})), kAccepted);
    m_pDaemon->Signal(SIGHUP);
    ASSERT_TRUE(m_pDaemon->WaitForLog("storing records in", 2));
    ASSERT_EQ(m_Caller.Call(MakeCall("new", {1})), kAccepted);
    const char* pPlaybacks = "SELECT playback_id FROM playbacks ORDER BY id";
    EXPECT_THAT(Read().Column(pPlaybacks), ElementsAre("new"));
    EXPECT_THAT(CFileReader(m_Folder.Path() / "moved.db").Column(pPlaybacks),
                ElementsAre("old", "between"));
}

TEST_F(DaemonLifecycle, ASecondOneSaysWhoHoldsTheName) {
    Start();
    CDaemon second(m_Folder.Path(),
                   {"--address", m_Bus.Address(), "--db", m_Folder.Path() / "second.db"});
    EXPECT_EQ(second.WaitForExit(), 1);
    EXPECT_THAT(second.AllLog(), AllOf(HasSubstr("org.veltra.tv.tallyra.service is already owned by :"),
                                       HasSubstr("process " + std::to_string(m_pDaemon->Pid()) +
                                                 " (tallyra-service)")));
    EXPECT_FALSE(std::filesystem::exists(m_Folder.Path() / "second.db"));
    EXPECT_EQ(m_Caller.Call({"Kick", "Kick"}), "(0, 0, 1)");
}

TEST_F(DaemonLifecycle, ANextOneServesOnceTheFirstHasEnded) {
    Start();
    m_pDaemon->Signal(SIGTERM);
    ASSERT_EQ(m_pDaemon->WaitForExit(), 0);
    Start();
    EXPECT_EQ(m_Caller.Call({"Kick", "Kick"}), "(0, 0, 1)");
}

TEST_F(DaemonLifecycle, EndsWithAnErrorWhenTheBusGoes) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {1})), kAccepted);
    m_Bus.Stop();
    EXPECT_EQ(m_pDaemon->WaitForExit(), 1);
    EXPECT_THAT(m_pDaemon->AllLog(), HasSubstr("lost the connection to the bus"));
    EXPECT_EQ(Read().Number("SELECT count(*) FROM records"), 1);
}

TEST_F(DaemonLifecycle, WithoutABusSaysSo) {
    m_Bus.Stop();
    CDaemon daemon(m_Folder.Path(), Arguments({}));
    EXPECT_EQ(daemon.WaitForExit(), 1);
    EXPECT_THAT(daemon.AllLog(), HasSubstr("tallyra-service: cannot connect to the bus: "));
}

TEST_F(DaemonLifecycle, RefusesSettingsThatMakeNoSense) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"--max-age", "0"}, {"--max-size", "-1"}, {"--rate", "-1"}, {"--colour"}, {"word"}}) {
        CDaemon daemon(m_Folder.Path(), arguments);
        const auto code = daemon.WaitForExit();
        ASSERT_TRUE(code.has_value());
        EXPECT_NE(*code, 0);
        EXPECT_THAT(daemon.AllLog(), Not(HasSubstr("serving")));
    }
}

TEST_F(DaemonLifecycle, MakesTheFolderOfItsFile) {
    const auto file = m_Folder.Path() / "deep" / "down" / "t.db";
    m_pDaemon = std::make_unique<CDaemon>(
        m_Folder.Path(), std::vector<std::string>{"--address", m_Bus.Address(), "--db", file});
    ASSERT_TRUE(m_pDaemon->WaitUntilReady());
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {1})), kAccepted);
    EXPECT_TRUE(std::filesystem::exists(file));
}

}  // namespace
