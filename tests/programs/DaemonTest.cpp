// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFixture.h"
#include "Program.h"
#include "Sanitizers.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

using Daemon = CDaemonTest;

TEST_F(Daemon, HasStoredABatchWithItsSenderWhenItAnswers) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START, TY_EVENT_RENDER_START})), kAccepted);
    EXPECT_THAT(Column("SELECT event || ' ' || playback_id || ' ' || url FROM records ORDER BY id"),
                ElementsAre("1 p1 film.mp4", "6 p1 film.mp4"));
    EXPECT_THAT(Column("SELECT DISTINCT bus_name || ' ' || uid || ' ' || pid FROM records"),
                ElementsAre(m_Caller.Name() + " " + std::to_string(getuid()) + " " +
                            std::to_string(getpid())));
}

TEST_F(Daemon, StoresOtherUsersWhileOneFloodsIt) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to be two users";
    }
    Start({"--rate", "20"});
    CCaller flooder(m_Bus.Address(), kNobody);
    const std::vector<int> three(3, TY_EVENT_PLAYBACK_TIME);
    for (int i = 0; i < 20; ++i) {
        for (int k = 0; k < 100; ++k) {
            flooder.Send(MakeCall("flood", {TY_EVENT_PLAYBACK_TIME}));
        }
        EXPECT_EQ(m_Caller.Call(MakeCall("p1", three)), kAccepted);
    }
    flooder.WaitForTheBus();
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_STOP})), kAccepted);
    EXPECT_EQ(Number("SELECT count(*) FROM records WHERE playback_id = 'p1'"), 61);
    const auto flood = Number("SELECT count(*) FROM records WHERE playback_id = 'flood'");
    EXPECT_GE(flood, 200);
    EXPECT_LT(flood, 2000);
}

TEST_F(Daemon, IdentifiesAPeerBehindAQueueOfMessages) {
    Start({"--rate", "0"});
    m_pDaemon->Pause();
    CCaller flooder(m_Bus.Address());
    const auto call = MakeCall("flood", std::vector<int>(36, TY_EVENT_PLAYBACK_TIME));
    for (int i = 0; i < (kUnderThreadSanitizer ? 60 : 600); ++i) {
        flooder.Send(call);
    }
    flooder.WaitForTheBus();
    m_Caller.Begin(MakeCall("p1", {TY_EVENT_PLAYBACK_TIME}));
    m_Caller.WaitForTheBus();
    const auto begin = std::chrono::steady_clock::now();
    m_pDaemon->Resume();
    EXPECT_EQ(m_Caller.CountAnswers(kAccepted), 1);
    // Less than the timeout of a call to the bus driver.
    EXPECT_LT(std::chrono::steady_clock::now() - begin,
              std::chrono::seconds(kUnderThreadSanitizer ? 20 : 4));
    EXPECT_EQ(Number("SELECT count(*) FROM senders WHERE pid IS NULL"), 0);
}

TEST_F(Daemon, CountsBatchesOfASenderThatHasLeft) {
    Start();
    m_pDaemon->Pause();
    {
        CCaller caller(m_Bus.Address());
        caller.Send(MakeCall("p1", {TY_EVENT_START, TY_EVENT_STOP}));
        caller.WaitForTheBus();
    }
    m_Caller.WaitForTheBus();
    m_pDaemon->Resume();
    EXPECT_EQ(m_Caller.Call(MakeCall("p2", {TY_EVENT_START})), kAccepted);
    m_pDaemon->Terminate();
    EXPECT_THAT(Column("SELECT playback_id FROM playbacks"), ElementsAre("p2"));
    EXPECT_THAT(Column("SELECT reason || application || records FROM losses"),
                ElementsAre("senderorg.example.app2"));
}

TEST_F(Daemon, RefusesBatchesUntilItHasAStore) {
    m_Folder.Write("folder", "not yet");
    StartOn(m_Folder.Path() / "folder/tallyra.db");
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START})), kRefusedBatch);
    EXPECT_EQ(m_Caller.Call({"GetPolicyInfo", "org.example.app"}), kRefused);
    EXPECT_EQ(m_Caller.Kick(), kAlive);
    std::filesystem::remove(m_Folder.Path() / "folder");
    std::filesystem::create_directory(m_Folder.Path() / "folder");
    m_pDaemon->Signal(SIGHUP);
    ASSERT_TRUE(Logs("storing records in"));
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START})), kAccepted);
    EXPECT_EQ(m_Caller.Call({"GetPolicyInfo", "org.example.app"}), "(0, 0, 1, 1, 0, 1)");
    EXPECT_EQ(m_Caller.Call({"Sing"}), "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(Daemon, DropsOldPlaybacksBetweenCalls) {
    CTYStore(m_File).Add(BatchOf("ancient", 1));
    MakeOlder(m_File, std::chrono::hours(25));
    Start({"--max-age", "1"});
    ASSERT_EQ(m_Caller.Call(MakeCall("new", {TY_EVENT_START})), kAccepted);
    EXPECT_TRUE(Eventually([this] { return Number("SELECT count(*) FROM playbacks") == 1; }));
    EXPECT_THAT(Column("SELECT playback_id FROM playbacks"), ElementsAre("new"));
    EXPECT_EQ(Number("SELECT sum(records) FROM losses WHERE reason = 'age'"), 1);
}

TEST_F(Daemon, KeepsTheSizeLimitWhileRecordsArrive) {
    Start({"--max-size", "1", "--rate", "0"});
    for (int i = 0; i < 30; ++i) {
        auto call = MakeCall("p" + std::to_string(i), {TY_EVENT_START});
        call.back() = std::string(60'000, 'u');
        ASSERT_EQ(m_Caller.Call(call), kAccepted);
    }
    EXPECT_TRUE(Eventually([this] {
        const std::int64_t pages = Number("PRAGMA page_count") - Number("PRAGMA freelist_count");
        return Number("PRAGMA page_size") * pages <= (1 << 20) + (1 << 20) / 16 + 200'000;
    }));
    // In one statement: the service may still drop playbacks.
    EXPECT_EQ(Number("SELECT (SELECT count(*) FROM playbacks) + "
                     "(SELECT coalesce(sum(playbacks), 0) FROM losses)"),
              30);
    EXPECT_EQ(Number("SELECT count(*) FROM playbacks WHERE playback_id = 'p29'"), 1);
}

class DaemonLifecycle : public CDaemonTest {
  protected:
    Result RunToItsEnd(const std::string& file) const {
        return RunProgram({TALLYRA_SERVICE, "--address", m_Bus.Address(), "--db", file});
    }
};

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
    EXPECT_EQ(m_Caller.CountAnswers(kAccepted), 50);
    EXPECT_EQ(m_pDaemon->WaitForExit(), 0);
    EXPECT_EQ(Stored(), 100);
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
    for (const auto& arguments : std::vector<std::vector<std::string>>{{"--max-age", "0"},
                                                                       {"--max-size", "-1"},
                                                                       {"--rate", "-1"},
                                                                       {"--rate", "nan"},
                                                                       {"--rate", "inf"},
                                                                       {"--rate", ""},
                                                                       {"--db", ""},
                                                                       {"--colour"},
                                                                       {"word"}}) {
        std::vector<std::string> command = {TALLYRA_SERVICE, "--address", m_Bus.Address()};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const Result result = RunProgram(command);
        EXPECT_GT(result.code, 78) << arguments[0];
        EXPECT_THAT(result.err, Not(HasSubstr("serving"))) << arguments[0];
    }
}

TEST_F(DaemonLifecycle, EndsWithAStatusOfItsOwnIfTheStoreIsUnusable) {
    m_Folder.Write("notes.txt", "These are my notes.");
    const Result foreign = RunToItsEnd(m_Folder.Path() / "notes.txt");
    EXPECT_EQ(foreign.code, 78);
    EXPECT_EQ(foreign.err, "tallyra-service: " + (m_Folder.Path() / "notes.txt").string() +
                               ": the file belongs to another application\n");
    EXPECT_EQ(m_Folder.Read("notes.txt"), "These are my notes.");
    CTYStore(m_File).Add(BatchOf("p1"));
    Execute("PRAGMA user_version = 1000");
    const Result newer = RunToItsEnd(m_File);
    EXPECT_EQ(newer.code, 78);
    EXPECT_THAT(newer.err, HasSubstr("schema version 1000"));
}

TEST_F(DaemonLifecycle, TellsTheServiceManagerThatItIsAliveAndWhatItStores) {
    TYBatch batch = MakeBatch(std::vector<TYMediaData>(24, MakeRecord(TY_EVENT_START)));
    for (std::size_t i = 0; i < batch.urls.size(); ++i) {
        batch.urls[i] = std::string(60'000, static_cast<char>('a' + i));
    }
    CTYStore(m_File).Add(batch);
    m_Environment = {"WATCHDOG_USEC=100000"};
    Start();
    EXPECT_TRUE(Eventually(
        [this] { return m_pDaemon->HasNotified("STATUS=0 records stored, 0 refused, 1."); }));
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(Eventually([this] { return m_pDaemon->HasNotified("WATCHDOG=1"); }));
    }
    m_pDaemon->Signal(SIGTERM);
    EXPECT_TRUE(Eventually([this] { return m_pDaemon->HasNotified("STOPPING=1"); }));
}

TEST_F(DaemonLifecycle, GoesOnInANewStoreWhenItsFileIsDeleted) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("old", {TY_EVENT_START})), kAccepted);
    std::filesystem::remove(m_File);
    ASSERT_EQ(m_Caller.Call(MakeCall("new", {TY_EVENT_START})), kAccepted);
    EXPECT_THAT(Column("SELECT playback_id FROM records"), ElementsAre("new"));
}

TEST_F(DaemonLifecycle, SetsAStoreAsideThatIsDamagedInTheMiddleAndRecoversIt) {
    {
        CTYStore store(m_File);
        for (int i = 0; i < 500; ++i) {
            store.Add(BatchOf("p" + std::to_string(i % 10)));
        }
    }
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("last", {TY_EVENT_START})), kAccepted);
    m_pDaemon->Kill();
    const auto page = Number(
        "SELECT max(pageno) FROM dbstat WHERE name = 'entries' "
        "AND pagetype = 'leaf' AND pageno < (SELECT max(pageno) FROM dbstat "
        "WHERE name = 'entries')");
    std::fstream(m_File, std::ios::in | std::ios::out).seekp((page - 1) * 4096)
        << std::string(4096, '\x5a');
    Start();
    // A call makes the service look whether the check has ended; otherwise it looks every 10 s.
    ASSERT_TRUE(Eventually([this] {
        m_Caller.Call({"GetPolicyInfo", "org.example.app"});
        return Log().find("could not be read") != std::string::npos;
    }));
    EXPECT_EQ(Stored() + Number("SELECT sum(records) FROM losses WHERE reason = 'damaged'"), 501);
    EXPECT_EQ(m_Caller.Call(MakeCall("new", {TY_EVENT_START})), kAccepted);
}

TEST_F(DaemonLifecycle, CreatesTheFolderOfItsFileWhichOtherUsersCannotRead) {
    using std::filesystem::perms;
    const std::string file = m_Folder.Path() / "deep" / "down" / "t.db";
    StartOn(file);
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START})), kAccepted);
    EXPECT_TRUE(Logs("serving org.veltra.tv.tallyra.service"));
    for (const std::string suffix : {"", "-wal", "-shm"}) {
        const auto granted = std::filesystem::status(file + suffix).permissions();
        EXPECT_EQ(granted & (perms::others_all | perms::group_write), perms::none) << suffix;
    }
}

}  // namespace
