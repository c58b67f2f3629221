// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFixture.h"
#include "Sanitizers.h"

#include <csignal>

using testing::ElementsAre;

namespace {

class Daemon : public CDaemonTest {
  protected:
    std::string Policy(const char* pApplication) {
        return m_Caller.Call({"GetPolicyInfo", pApplication});
    }
};

TEST_F(Daemon, AnswersByTheReplyRules) {
    Start();
    EXPECT_EQ(m_Caller.Kick(), kAlive);
    EXPECT_EQ(Policy("org.example.app"), "(0, 0, 1, 1, 0, 1)");
    EXPECT_EQ(m_Caller.Call({"SendData"}), kAccepted);
    EXPECT_EQ(m_Caller.Call({"SendData", receiver::Bytes(12), "film.mp4"}), kRefused);
    EXPECT_EQ(m_Caller.Call({"Sing"}), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(m_Caller.Call(g_variant_new_parsed("(@a{sv} {}, 'x', 1.5)")),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(m_Caller.Kick({.pMember = "TYOther"}), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(m_Caller.Kick(), kAlive);
}

TEST_F(Daemon, HasStoredABatchWithItsSenderWhenItAnswers) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START, TY_EVENT_RENDER_START})), kAccepted);
    EXPECT_THAT(Column("SELECT event || ' ' || playback_id || ' ' || url FROM records ORDER BY id"),
                ElementsAre("1 p1 film.mp4", "6 p1 film.mp4"));
    EXPECT_THAT(Column("SELECT DISTINCT bus_name || ' ' || uid || ' ' || pid FROM records"),
                ElementsAre(m_Caller.Name() + " " + std::to_string(getuid()) + " " +
                            std::to_string(getpid())));
}

TEST_F(Daemon, LetsNoCallerChangeTheRecordsOfAnother) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START, TY_EVENT_STOP})), kAccepted);
    const char* pRecords =
        "SELECT hex(common) || event || param1 || url || bus_name || arrival FROM records "
        "WHERE id <= 2 ORDER BY id";
    const char* pPlayback =
        "SELECT records || ' ' || last_arrival || ' ' || coalesce(ended_sec, 0) FROM playbacks "
        "WHERE id = 1";
    const auto records = Column(pRecords);
    const auto playback = Column(pPlayback);
    CCaller other(m_Bus.Address());
    ASSERT_EQ(other.Call(MakeCall("p1", {TY_EVENT_START, TY_EVENT_STOP})), kAccepted);
    other.Call({"SendData", "DELETE FROM entries"});
    EXPECT_EQ(Column(pRecords), records);
    EXPECT_EQ(Column(pPlayback), playback);
    EXPECT_EQ(Number("SELECT count(*) FROM playbacks"), 2);
}

TEST_F(Daemon, StoresOtherPeersWhileOneFloodsIt) {
    Start({"--rate", "20"});
    CCaller flooder(m_Bus.Address());
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
    Start({"--rate", "20"});
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
    EXPECT_EQ(m_Caller.CountAnswers(kAccepted), 1U);
    // Less than the timeout of a call to the bus driver.
    EXPECT_LT(std::chrono::steady_clock::now() - begin,
              std::chrono::seconds(kUnderThreadSanitizer ? 20 : 4));
    EXPECT_EQ(Number("SELECT count(*) FROM senders WHERE pid IS NULL"), 0);
}

TEST_F(Daemon, KeepsItsFileFromOtherUsers) {
    Start();
    using std::filesystem::perms;
    for (const std::string suffix : {"", "-wal", "-shm"}) {
        const auto granted = std::filesystem::status(m_File.string() + suffix).permissions();
        EXPECT_EQ(granted & (perms::others_all | perms::group_write), perms::none) << suffix;
    }
}

TEST_F(Daemon, RefusesBatchesUntilItHasAStore) {
    std::filesystem::create_directory(m_File);
    Start();
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START})), kRefusedBatch);
    EXPECT_EQ(Policy("org.example.app"), kRefused);
    EXPECT_EQ(m_Caller.Kick(), kAlive);
    std::filesystem::remove(m_File);
    m_pDaemon->Signal(SIGHUP);
    ASSERT_TRUE(Logs("storing records in"));
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {TY_EVENT_START})), kAccepted);
}

TEST_F(Daemon, DropsOldPlaybacksBetweenCalls) {
    CTYStore(m_File).Add(BatchOf("ancient", 1));
    Start({"--max-age", "1"});
    ASSERT_EQ(m_Caller.Call(MakeCall("new", {TY_EVENT_START})), kAccepted);
    m_Caller.Kick();
    EXPECT_THAT(Column("SELECT playback_id FROM playbacks"), ElementsAre("new"));
    EXPECT_EQ(Number("SELECT sum(records) FROM losses WHERE reason = 'age'"), 1);
}

TEST_F(Daemon, KeepsTheSizeLimitWhileRecordsArrive) {
    Start({"--max-size", "1", "--rate", "0"});
    for (int i = 0; i < 60; ++i) {
        auto call = MakeCall("p" + std::to_string(i), {TY_EVENT_START});
        call.back() = std::string(100'000, 'u');
        ASSERT_EQ(m_Caller.Call(call), kAccepted);
    }
    m_Caller.Kick();
    const std::int64_t pages = Number("PRAGMA page_count") - Number("PRAGMA freelist_count");
    EXPECT_LE(Number("PRAGMA page_size") * pages, (1 << 20) + (1 << 20) / 16 + 200'000);
    EXPECT_EQ(
        Number("SELECT count(*) FROM playbacks") + Number("SELECT sum(playbacks) FROM losses"), 60);
    EXPECT_EQ(Number("SELECT count(*) FROM playbacks WHERE playback_id = 'p59'"), 1);
}

}  // namespace
