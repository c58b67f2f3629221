// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <csignal>

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

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

TEST_F(Follow, PrintsRecordsAsTheyArrive) {
    CProgram command(Arguments({}));
    ASSERT_TRUE(command.Prints("example/first"));
    for (const std::string title : {"second", "third"}) {
        Send(title);
        EXPECT_TRUE(command.Prints("example/" + title));
    }
    command.Signal(SIGINT);
    const Result result = command.Finish();
    EXPECT_EQ(result.code, 0);
    EXPECT_THAT(LinesOf(result.out), SizeIs(4));
    EXPECT_EQ(result.err, "");
}

TEST_F(Follow, CompletesJsonWhenInterrupted) {
    for (const int signal : {SIGINT, SIGTERM}) {
        CProgram command(Arguments({"--format", "json"}));
        ASSERT_TRUE(command.Prints("example/first"));
        command.Signal(signal);
        const Result result = command.Finish();
        EXPECT_EQ(result.code, 0);
        EXPECT_THAT(nlohmann::json::parse(result.out), SizeIs(1));
    }
}

TEST_F(Follow, LimitsOnlyExistingRecordsAndFiltersAll) {
    const struct {
        std::vector<std::string> options;
        bool isFirstPrinted;
        bool isSecondPrinted;
    } cases[] = {{{"--limit", "1"}, true, true},
                 {{"--limit", "0"}, false, true},
                 {{"--code", "STOP"}, false, false}};
    for (const auto& one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.options));
        const std::string at = "-of-" + one.options[1];
        Send("older" + at);
        Send("first" + at);
        std::vector<std::string> options = one.options;
        options.insert(options.end(), {"--format", "csv"});
        CProgram command(Arguments(options));
        // The header is printed once the store was read.
        ASSERT_TRUE(command.Prints(one.isFirstPrinted ? "example/first" + at : "time_nsec"));
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

}  // namespace
