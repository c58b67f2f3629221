// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace {

/// The calling thread's identifier; 0 for the kernel's.
thread_local pid_t t_ThreadId = 0;

}  // namespace

/// Replaces libc's in the whole program, since a test cannot make the kernel choose seven digits.
extern "C" pid_t gettid() noexcept {
    return t_ThreadId != 0 ? t_ThreadId : static_cast<pid_t>(syscall(SYS_gettid));
}

namespace {

class CPlaybackIdentifierTest : public CCollectorTest {
  protected:
    static std::string Identifier(pid_t thread, int second, int nanosecond) {
        char digits[64];
        std::snprintf(digits, sizeof(digits), "%05u%010d%09d", static_cast<unsigned>(thread),
                      second, nanosecond);
        return std::string(digits).substr(0, 24);
    }
};

TEST_F(CPlaybackIdentifierTest, NamesTheStartingThreadTheSecondAndTheNanosecond) {
    SetContent();
    pid_t thread = 0;
    std::thread([&] {
        thread = gettid();
        Event(TY_EVENT_START);
    }).join();
    ASSERT_NE(thread, getpid());
    const std::string expected = Identifier(thread, kNow, 5);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "TY_EVENT_START playbackID is " + expected));
    EXPECT_EQ(Reported().at(0).playbackID, expected);
}

TEST_F(CPlaybackIdentifierTest, IsCutToTwentyFourCharactersAndANul) {
    m_Clock.SetRealTime(kNow, 123456789);
    SetContent();
    std::thread([&] {
        t_ThreadId = 4194303;
        Event(TY_EVENT_START);
    }).join();
    EXPECT_TRUE(
        Logged(LOGSVC_DEBUG, kTag, "TY_EVENT_START playbackID is 419430300010000001234567"));
    const TYMediaData record = Reported().at(0);
    EXPECT_EQ(std::string(record.playbackID, 25), std::string("419430300010000001234567", 25));
}

TEST_F(CPlaybackIdentifierTest, HasZerosIfTheClockFails) {
    SetContent();
    m_Clock.FailRealTime(true);
    Event(TY_EVENT_START);
    EXPECT_EQ(Reported().at(0).playbackID, Identifier(gettid(), 0, 0));
}

TEST_F(CPlaybackIdentifierTest, StaysTheSameForASecondStart) {
    StartPlayback();
    m_Clock.SetRealTime(2 * kNow, 0);
    Event(TY_EVENT_START);
    const auto records = Reported();
    const std::string playbackID = records.at(1).playbackID;
    EXPECT_EQ(playbackID, records.at(0).playbackID);
    EXPECT_TRUE(
        Logged(LOGSVC_ERROR, kTag,
               "start called more than two, so collect TY_ERROR_DUPLICATED_START " + playbackID));
}

TEST_F(CPlaybackIdentifierTest, ChangesWithThePlaybackWhileTheContentStays) {
    StartPlayback();
    Event(TY_EVENT_STOP);
    m_Clock.SetRealTime(2 * kNow, 7);
    Event(TY_EVENT_START);
    const auto records = Reported();
    EXPECT_EQ(records.at(1).playbackID, Identifier(gettid(), kNow, 5));
    EXPECT_EQ(records.at(2).playbackID, Identifier(gettid(), 2 * kNow, 7));
    EXPECT_STREQ(records.at(2).content.title, "Film");
    EXPECT_EQ(SentUrls().at(2), "film.mp4");
}

}  // namespace
