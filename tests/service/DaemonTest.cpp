// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFixture.h"
#include "Sanitizers.h"

#include <unistd.h>

#include <csignal>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";

class Daemon : public CDaemonTest {};

TEST_F(Daemon, AnswersByTheReplyRules) {
    Start();
    EXPECT_EQ(m_Caller.Call({"Kick", "Kick"}), "(0, 0, 1)");
    EXPECT_EQ(m_Caller.Call({"GetPolicyInfo", "org.example.app"}), "(0, 0, 1, 1, 0, 1)");
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {1, 6, 2})), kAccepted);
    EXPECT_EQ(m_Caller.Call({"SendData"}), kAccepted);
    EXPECT_EQ(m_Caller.Call({"SendData", receiver::Bytes(12), "film.mp4"}), kRefused);
}

TEST_F(Daemon, HasStoredWhatItAcceptedWhenItAnswers) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {1, 6, 2})), kAccepted);
    EXPECT_THAT(Read().Column("SELECT event || ' ' || playback_id || ' ' || url FROM records "
                              "ORDER BY id"),
                ElementsAre("1 p1 film.mp4", "6 p1 film.mp4", "2 p1 film.mp4"));
}

TEST_F(Daemon, KeepsWithEachRecordWhoSentIt) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {1})), kAccepted);
    EXPECT_THAT(Read().Column("SELECT bus_name || ' ' || uid || ' ' || pid FROM records"),
                ElementsAre(m_Caller.Name() + " " + std::to_string(getuid()) + " " +
                            std::to_string(getpid())));
}

TEST_F(Daemon, RefusesForeignCallsWithAnErrorOfTheBus) {
    Start();
    EXPECT_EQ(m_Caller.Call(nullptr, "TYCallFunction", "/"),
              "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(m_Caller.Call(nullptr, "Introspect", "/org/veltra/tv/tallyra/service",
                            "org.freedesktop.DBus.Introspectable"),
              "org.freedesktop.DBus.Error.UnknownInterface");
    EXPECT_EQ(m_Caller.Call(nullptr, "TYOther"), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(m_Caller.Call(nullptr), kInvalidArgs);
    EXPECT_EQ(m_Caller.Call({"Sing"}), kInvalidArgs);
    EXPECT_EQ(m_Caller.Call(g_variant_new_parsed("(@a{sv} {}, 'x', 1.5)")), kInvalidArgs);
    EXPECT_EQ(m_Caller.Call({"Kick", "Kick"}), "(0, 0, 1)");
}

TEST_F(Daemon, AnswersWithThePolicyOfTheMoment) {
    Start();
    CFileReader writer(m_File, CTYDatabase::Mode::READ_WRITE);
    writer.Execute("INSERT INTO policies VALUES('org.example.app', 0, 0), ('*', 3, 0)");
    EXPECT_EQ(m_Caller.Call({"GetPolicyInfo", "org.example.app"}), "(0, 0, 1, 1, 0, 0)");
    EXPECT_EQ(m_Caller.Call({"GetPolicyInfo", "org.example.other"}), "(0, 0, 1, 1, 0, 3)");
    writer.Execute("DELETE FROM policies");
    EXPECT_EQ(m_Caller.Call({"GetPolicyInfo", "org.example.app"}), "(0, 0, 1, 1, 0, 1)");
}

TEST_F(Daemon, HandsNoRecordToAnybodyOverTheBus) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("secret", {1})), kAccepted);
    CCaller nosy(m_Bus.Address());
    for (const char* pFunction :
         {"GetData", "ReceiveData", "Query", "DeleteData", "SetPolicyInfo"}) {
        EXPECT_EQ(nosy.Call({pFunction, "secret"}), kInvalidArgs) << pFunction;
    }
    EXPECT_EQ(nosy.Call({"GetPolicyInfo", "secret' UNION SELECT event FROM records --"}),
              "(0, 0, 1, 1, 0, 1)");
    EXPECT_EQ(nosy.Call(g_variant_new("(s)", "org.veltra.tv.tallyra.client"), "GetAll",
                        "/org/veltra/tv/tallyra/service", "org.freedesktop.DBus.Properties"),
              "org.freedesktop.DBus.Error.UnknownInterface");
}

TEST_F(Daemon, LetsNobodyChangeTheRecordsOfAnother) {
    Start();
    ASSERT_EQ(m_Caller.Call(MakeCall("p1", {1, 2})), kAccepted);
    const char* pAll =
        "SELECT hex(common) || event || param1 || url || bus_name || arrival "
        "FROM records WHERE id <= 2 ORDER BY id";
    const char* pPlayback =
        "SELECT records || ' ' || last_arrival || ' ' || coalesce(ended_sec, 0) "
        "FROM playbacks WHERE id = 1";
    const auto records = Read().Column(pAll);
    const auto playback = Read().Column(pPlayback);
    CCaller other(m_Bus.Address());
    ASSERT_EQ(other.Call(MakeCall("p1", {1, 202, 2})), kAccepted);
    other.Call({"SendData", "DELETE FROM entries"});
    EXPECT_THAT(Read().Column(pAll), testing::ElementsAreArray(records));
    EXPECT_THAT(Read().Column(pPlayback), testing::ElementsAreArray(playback));
    EXPECT_EQ(Read().Number("SELECT count(*) FROM playbacks"), 2);
}

TEST_F(Daemon, TakesTheRecordsOfOthersWhileOnePeerFloodsIt) {
    Start({"--rate", "20"});
    CCaller flooder(m_Bus.Address());
    for (int i = 0; i < 20; ++i) {
        for (int k = 0; k < 100; ++k) {
            flooder.Send(MakeCall("flood", {8}));
        }
        EXPECT_EQ(m_Caller.Call(MakeCall("p1", {8, 8, 8})), kAccepted);
    }
    flooder.WaitForTheBus();
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {2})), kAccepted);
    EXPECT_EQ(Read().Number("SELECT count(*) FROM records WHERE playback_id = 'p1'"), 61);
    const std::int64_t flood =
        Read().Number("SELECT count(*) FROM records WHERE playback_id = 'flood'");
    EXPECT_GE(flood, 200);
    EXPECT_LT(flood, 2000);
}

TEST_F(Daemon, KnowsAPeerWhoComesBehindAMountainOfMessages) {
    Start({"--rate", "20"});
    m_pDaemon->Signal(SIGSTOP);
    CCaller flooder(m_Bus.Address());
    const std::vector<receiver::Value> call = MakeCall("flood", std::vector<int>(36, 8));
    for (int i = 0; i < (kUnderThreadSanitizer ? 60 : 600); ++i) {
        flooder.Send(call);
    }
    flooder.WaitForTheBus();
    m_Caller.Begin(MakeCall("p1", {8}));
    m_Caller.WaitForTheBus();
    const auto begin = std::chrono::steady_clock::now();
    const std::chrono::seconds patience(kUnderThreadSanitizer ? 20 : 4);
    m_pDaemon->Signal(SIGCONT);
    EXPECT_EQ(m_Caller.CountAnswers(kAccepted), 1U);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, patience);
    EXPECT_EQ(Read().Number("SELECT count(*) FROM senders WHERE pid IS NULL"), 0);
}

TEST_F(Daemon, LetsOnlyItsOwnUserAndGroupReadItsFile) {
    Start();
    const auto others = std::filesystem::perms::others_all | std::filesystem::perms::group_write;
    for (const std::string suffix : {"", "-wal", "-shm"}) {
        EXPECT_EQ(std::filesystem::status(m_File.string() + suffix).permissions() & others,
                  std::filesystem::perms::none)
            << suffix;
    }
}

TEST_F(Daemon, SaysOnceThatAPeerFloodsIt) {
    Start({"--rate", "1"});
    for (int i = 0; i < 100; ++i) {
        m_Caller.Call({"Kick", "Kick"});
    }
    m_pDaemon->Signal(SIGTERM);
    const std::string log = m_pDaemon->AllLog();
    const std::string line = m_Caller.Name() + " (uid " + std::to_string(getuid()) + ", pid " +
                             std::to_string(getpid()) + ") exceeds its rate limit";
    ASSERT_THAT(log, HasSubstr(line));
    EXPECT_THAT(log.substr(log.find(line) + line.size()), Not(HasSubstr("exceeds")));
}

TEST_F(Daemon, WithoutAStoreRefusesAndTakesUpOnceThereIsOne) {
    std::filesystem::create_directory(m_File);
    Start();
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {1})), kRefusedBatch);
    EXPECT_EQ(m_Caller.Call({"GetPolicyInfo", "org.example.app"}), kRefused);
    EXPECT_EQ(m_Caller.Call({"Kick", "Kick"}), "(0, 0, 1)");
    std::filesystem::remove(m_File);
    m_pDaemon->Signal(SIGHUP);
    ASSERT_TRUE(m_pDaemon->WaitForLog("storing records in"));
    EXPECT_EQ(m_Caller.Call(MakeCall("p1", {1})), kAccepted);
}

TEST_F(Daemon, DropsOldPlaybacksWhileItServes) {
    {
        CTYStore store(m_File);
        store.Add(BatchOf("ancient", 1));
    }
    Start({"--max-age", "1"});
    ASSERT_EQ(m_Caller.Call(MakeCall("new", {1})), kAccepted);
    // It drops between calls: behind the second one it has done so.
    m_Caller.Call({"Kick", "Kick"});
    EXPECT_THAT(Read().Column("SELECT playback_id FROM playbacks"), ElementsAre("new"));
    EXPECT_EQ(Read().Number("SELECT sum(records) FROM losses WHERE reason = 'age'"), 1);
}

TEST_F(Daemon, StaysWithinItsSizeWhileRecordsPourIn) {
    Start({"--max-size", "1", "--rate", "0"});
    for (int i = 0; i < 60; ++i) {
        std::vector<receiver::Value> call = MakeCall("p" + std::to_string(i), {1});
        call.back() = std::string(100'000, 'u');
        ASSERT_EQ(m_Caller.Call(call), kAccepted);
    }
    m_Caller.Call({"Kick", "Kick"});
    const std::int64_t bytes =
        Read().Number("PRAGMA page_size") *
        (Read().Number("PRAGMA page_count") - Read().Number("PRAGMA freelist_count"));
    EXPECT_LE(bytes, (1 << 20) + (1 << 20) / 16 + 200'000);
    EXPECT_EQ(Read().Number("SELECT count(*) FROM playbacks") +
                  Read().Number("SELECT sum(playbacks) FROM losses"),
              60);
    EXPECT_EQ(Read().Number("SELECT count(*) FROM playbacks WHERE playback_id = 'p59'"), 1);
}

}  // namespace
