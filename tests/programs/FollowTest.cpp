// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"
#include "DaemonFixture.h"

#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::Not;

class Follow : public CCommandTest {
  protected:
    void SetUp() override { Send("first"); }

    void Send(const std::string& title, int event = TY_EVENT_START) {
        Store({"org.example.player", "1", title, "https://cdn.example/" + title, ":1.7"},
              {{0, event}});
    }
    std::vector<std::string> Arguments(std::vector<std::string> more) const {
        more.insert(more.begin(), {"records", "--follow"});
        return Command(more);
    }
};

TEST_F(Follow, PrintsRecordsAsTheyArriveAndCompletesJsonWhenInterrupted) {
    std::size_t records = 1;
    const std::pair<int, const char*> cases[] = {
        {SIGINT, "table"}, {SIGINT, "json"}, {SIGTERM, "json"}};
    for (const auto& [signal, pFormat] : cases) {
        CProgram command(Arguments({"--format", pFormat}));
        ASSERT_TRUE(command.Prints("example/first"));
        for (int i = 0; i < 2; ++i) {
            const std::string title = "title" + std::to_string(++records);
            Send(title);
            EXPECT_TRUE(command.Prints("example/" + title));
        }
        command.Signal(signal);
        const Result result = command.Finish();
        EXPECT_EQ(result.code, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(pFormat == std::string("json") ? nlohmann::json::parse(result.out).size()
                                                 : LinesOf(result.out).size() - 1,
                  records);
    }
}

const struct {
    std::vector<std::string> options;
    bool isFirstPrinted;
    bool isSecondPrinted;
} kFollowed[] = {{{"--limit", "1"}, true, true},
                 {{"--limit", "0"}, false, true},
                 {{"--code", "STOP"}, false, false}};

TEST_F(Follow, LimitsOnlyExistingRecordsAndFiltersAll) {
    for (const auto& one : kFollowed) {
        SCOPED_TRACE(testing::PrintToString(one.options));
        const std::string at = "-of-" + one.options[1];
        Send("older" + at);
        Send("first" + at);
        std::vector<std::string> options = one.options;
        options.insert(options.end(), {"--format", "csv"});
        CProgram command(Arguments(options));
        // The header is printed once the store was read.
        ASSERT_TRUE(command.Prints(one.isFirstPrinted ? "example/first" + at : "custom_info"));
        Send("second" + at);
        Send("third" + at, TY_EVENT_STOP);
        ASSERT_TRUE(command.Prints("example/third" + at));
        command.Signal(SIGINT);
        const std::string text = command.Finish().out;
        EXPECT_THAT(text, Not(HasSubstr("example/older" + at)));
        EXPECT_EQ(text.find("example/first" + at) != text.npos, one.isFirstPrinted);
        EXPECT_EQ(text.find("example/second" + at) != text.npos, one.isSecondPrinted);
    }
}

TEST_F(Follow, IsKilledBySigpipeWhenItsReaderCloses) {
    std::array<int, 2> fds{};
    ASSERT_EQ(pipe2(fds.data(), O_CLOEXEC), 0);
    // GLib ignores SIGPIPE in this process, and children inherit that.
    std::signal(SIGPIPE, SIG_DFL);
    // The child opens the pipe through /proc, so that it holds no reading end.
    CProgram command(Arguments({}), "",
                     "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fds[1]));
    char first = 0;
    ASSERT_EQ(read(fds[0], &first, 1), 1);
    close(fds[1]);
    close(fds[0]);
    EXPECT_EQ(command.Finish().code, 128 + SIGPIPE);
}

// A follower of a store that other programs replace, prune or restart.
class FollowAcross : public Follow {
  protected:
    // Starts a follower; returns once it has printed the first record.
    std::unique_ptr<CProgram> Begin() const {
        auto pCommand = std::make_unique<CProgram>(Arguments({"--format", "csv"}));
        EXPECT_TRUE(pCommand->Prints("example/first"));
        return pCommand;
    }
    // Ends it; returns how often it has printed the URL.
    static std::ptrdiff_t CountOf(const std::string& url, const std::string& text) {
        std::ptrdiff_t count = 0;
        for (std::size_t at = text.find(url); at != text.npos; at = text.find(url, at + 1)) {
            ++count;
        }
        return count;
    }
    static Result End(CProgram& command) {
        command.Signal(SIGINT);
        Result result = command.Finish();
        EXPECT_EQ(result.code, 0);
        return result;
    }
    void MoveAway() const {
        fs::rename(Db(), File("moved.db"));
        fs::remove(Db() + "-wal");
        fs::remove(Db() + "-shm");
    }
};

TEST_F(FollowAcross, CountsWhatWasDroppedUnread) {
    const auto pCommand = Begin();
    PauseProcess(pCommand->Pid());
    Send("second");
    Send("third");
    // Dropped as the service drops records: the ids stay used.
    Execute("DELETE FROM runs");
    Send("fourth");
    pCommand->Signal(SIGCONT);
    ASSERT_TRUE(pCommand->Prints("example/fourth"));
    const Result result = End(*pCommand);
    EXPECT_EQ(result.err, "tallyra: missed 2 records, which were dropped before they were read\n");
    EXPECT_THAT(result.out, Not(HasSubstr("example/second")));
}

TEST_F(FollowAcross, StaysSilentAboutWhatItHasPrinted) {
    const auto pCommand = Begin();
    Execute("DELETE FROM runs");
    Send("second");
    ASSERT_TRUE(pCommand->Prints("example/second"));
    EXPECT_EQ(End(*pCommand).err, "");
}

TEST_F(FollowAcross, GoesOnInANewStore) {
    const auto pCommand = Begin();
    MoveAway();
    EXPECT_TRUE(Eventually([&] { return pCommand->Errors() != ""; }));
    Send("second");
    Send("third");
    ASSERT_TRUE(pCommand->Prints("example/third"));
    const Result result = End(*pCommand);
    EXPECT_EQ(result.err,
              "tallyra: no store at " + Db() +
                  "; start tallyra-service, which creates it, or name another with --db or "
                  "TALLYRA_DB; waiting for it\ntallyra: following the new store\n");
    EXPECT_EQ(CountOf("example/first", result.out), 1);
    EXPECT_EQ(CountOf("example/second", result.out), 1);
}

TEST_F(FollowAcross, DoesNotRepeatRecordsOfTheSameStoreInAnotherFile) {
    const auto pCommand = Begin();
    fs::copy_file(Db(), File("copy.db"));
    MoveAway();
    fs::rename(File("copy.db"), Db());
    Send("second");
    ASSERT_TRUE(pCommand->Prints("example/second"));
    const Result result = End(*pCommand);
    EXPECT_EQ(CountOf("example/first", result.out), 1);
    EXPECT_THAT(result.err, Not(HasSubstr("new store")));
}

// A paused output must not keep the service from emptying its log.
TEST_F(FollowAcross, HoldsNoLockWhileItsOutputBlocks) {
    Store({.url = "https://cdn.example/" + std::string(4000, 'u')},
          std::vector<Step>(300, {0, TY_EVENT_PLAYBACK_TIME}));
    const std::string pipe = File("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int reader = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
    CProgram command(Arguments({"--limit", "-1", "--format", "csv"}), "", pipe);
    std::array<char, 1> begin{};
    ASSERT_EQ(read(reader, begin.data(), 1), 1);
    CTYStore service(Db());
    service.Add(BatchOf("p1"));
    EXPECT_TRUE(Eventually([&] {
        CFileReader writer(m_File, CTYDatabase::Mode::READ_WRITE);
        return writer.Number("PRAGMA wal_checkpoint(TRUNCATE)") == 0;
    }));
    command.Signal(SIGKILL);
    command.Finish();
    close(reader);
}

TEST_F(Follow, EndsBySignalsThoughNobodyReadsItsOutput) {
    Store({.url = "https://cdn.example/" + std::string(4000, 'u')},
          std::vector<Step>(300, {0, TY_EVENT_PLAYBACK_TIME}));
    const std::string pipe = File("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int reader = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
    for (const int signal : {SIGINT, SIGTERM}) {
        CProgram command(Arguments({"--limit", "-1", "--format", "json"}), "", pipe);
        std::array<char, 1> begin{};
        ASSERT_EQ(read(reader, begin.data(), 1), 1);
        command.Signal(signal);
        EXPECT_EQ(command.Finish().code, 128 + signal);
    }
    close(reader);
}

using DaemonFollower = CDaemonTest;

TEST_F(DaemonFollower, GoesOnWhenTheServiceReopensItsStoreOrStartsANewOne) {
    Start();
    CProgram command({TALLYRA_COMMAND, "records", "--follow", "--db", m_File});
    const auto send = [&](const std::string& playback) {
        EXPECT_EQ(m_Caller.Call(MakeCall(playback, {TY_EVENT_START})), kAccepted);
        return command.Prints(playback);
    };
    EXPECT_TRUE(send("before"));
    m_pDaemon->Signal(SIGHUP);
    EXPECT_TRUE(send("reopened"));
    fs::rename(m_File, m_Folder.Path() / "moved.db");
    m_pDaemon->Signal(SIGHUP);
    EXPECT_TRUE(send("renewed"));
    m_pDaemon->Terminate();
    Start();
    EXPECT_TRUE(send("restarted"));
    command.Signal(SIGINT);
    const Result result = command.Finish();
    EXPECT_EQ(result.code, 0);
    EXPECT_THAT(LinesOf(result.out), testing::SizeIs(5));
    EXPECT_THAT(result.err, testing::EndsWith("tallyra: following the new store\n"));
}

}  // namespace
