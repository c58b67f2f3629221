// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <csignal>

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

constexpr int kKilledBySignal = 128;

class CFollowTest : public CStoreTest {
  protected:
    void SetUp() override { Send("first"); }

    void Send(const std::string& title) {
        Store(Script{"org.example.player", "1", title, "https://cdn.example/" + title, ":1.7"},
              {{0, 1}}, NowNs());
    }
    std::vector<std::string> Follow(std::vector<std::string> more) const {
        more.insert(more.begin(), {"records", "--follow"});
        return Command(more);
    }
};

TEST_F(CFollowTest, PrintsRecordsAsTheyArrive) {
    CProgram command(Follow({}));
    ASSERT_TRUE(command.Prints("example/first"));
    Send("second");
    EXPECT_TRUE(command.Prints("example/second"));
    Send("third");
    EXPECT_TRUE(command.Prints("example/third"));

    command.Signal(SIGINT);
    const Result result = command.Finish();
    EXPECT_EQ(result.code, 0);
    EXPECT_THAT(LinesOf(result.out), SizeIs(4));
    EXPECT_EQ(result.err, "");
}

TEST_F(CFollowTest, BringsJsonToItsEndWhenInterrupted) {
    for (const int signal : {SIGINT, SIGTERM}) {
        CProgram command(Follow({"--format", "json"}));
        ASSERT_TRUE(command.Prints("example/first"));
        command.Signal(signal);
        const Result result = command.Finish();

        EXPECT_EQ(result.code, 0);
        EXPECT_THAT(nlohmann::json::parse(result.out), SizeIs(1));
    }
}

TEST_F(CFollowTest, LimitsOnlyWhatIsThereAlready) {
    Send("second");
    CProgram command(Follow({"--limit", "1", "--format", "csv"}));
    ASSERT_TRUE(command.Prints("example/second"));
    Send("third");
    Send("fourth");
    ASSERT_TRUE(command.Prints("example/fourth"));
    command.Signal(SIGINT);

    const std::string text = command.Finish().out;
    EXPECT_THAT(text, Not(HasSubstr("example/first")));
    EXPECT_THAT(text, HasSubstr("example/third"));
}

TEST_F(CFollowTest, WithLimitZeroPrintsOnlyWhatArrives) {
    CProgram command(Follow({"--limit", "0", "--format", "csv"}));
    // The header is there once the store was looked at.
    ASSERT_TRUE(command.Prints("time_nsec"));
    Send("second");
    ASSERT_TRUE(command.Prints("example/second"));
    command.Signal(SIGINT);
    EXPECT_THAT(command.Finish().out, Not(HasSubstr("example/first")));
}

TEST_F(CFollowTest, KeepsToItsFilters) {
    CProgram command(Follow({"--code", "STOP", "--format", "csv"}));
    ASSERT_TRUE(command.Prints("time_nsec"));
    Send("second");
    Store(Script{"org.example.player", "1", "third", "https://cdn.example/third", ":1.7"}, {{0, 2}},
          NowNs());
    ASSERT_TRUE(command.Prints("example/third"));
    command.Signal(SIGINT);
    EXPECT_THAT(command.Finish().out, Not(HasSubstr("example/second")));
}

TEST_F(CFollowTest, EndsWhenItsReaderGoesEvenIfNothingArrives) {
    std::array<int, 2> fds{};
    ASSERT_EQ(pipe2(fds.data(), O_CLOEXEC), 0);
    // The child opens the pipe anew under our process's name, and holds no other end of it.
    CProgram command(Follow({}), "",
                     "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fds[1]));
    char first = 0;
    ASSERT_EQ(read(fds[0], &first, 1), 1);
    close(fds[1]);
    close(fds[0]);

    EXPECT_EQ(command.Finish().code, kKilledBySignal + SIGPIPE);
}

TEST_F(CFollowTest, SaysThatItsOutputIsFull) {
    const Result result = RunProgram(Follow({}), "", "/dev/full");
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.err, HasSubstr("writing the output failed"));
}

}  // namespace
