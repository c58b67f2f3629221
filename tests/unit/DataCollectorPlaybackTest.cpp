// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <thread>

using testing::ElementsAre;

namespace {

/// The calling thread's identifier; 0 for the kernel's.
thread_local pid_t t_ThreadId = 0;

}  // namespace

/// Replaces libc's in the whole program: a test cannot have the kernel choose one of seven digits.
extern "C" pid_t gettid() noexcept {
    return t_ThreadId != 0 ? t_ThreadId : static_cast<pid_t>(syscall(SYS_gettid));
}

namespace {

class CPlaybackTest : public CCollectorTest {
  protected:
    static std::string Identifier(pid_t thread, unsigned long second, int nanosecond) {
        char digits[64];
        std::snprintf(digits, sizeof(digits), "%05u%010lu%09d", static_cast<unsigned>(thread),
                      second, nanosecond);
        return std::string(digits).substr(0, 24);
    }

    /// Reports these positions in a playback that renders.
    std::vector<std::string> Positions(const std::vector<int>& positions) {
        StartRendering();
        for (const int position : positions) {
            Event(TY_EVENT_PLAYBACK_TIME, position);
        }
        std::vector<std::string> texts = ReportedTexts();
        texts.erase(texts.begin(), texts.begin() + 2);
        return texts;
    }
};

TEST_F(CPlaybackTest, IdentifierNamesTheThreadThatStarts) {
    SetContent();
    pid_t thread = 0;
    std::thread([&] {
        thread = gettid();
        Event(TY_EVENT_START);
    }).join();
    ASSERT_NE(thread, getpid());
    const TYMediaData record = Reported().at(0);
    EXPECT_EQ(record.playbackID, Identifier(thread, 1000000, 5));
    EXPECT_EQ(record.playbackID[24], '\0');
}

TEST_F(CPlaybackTest, IdentifierOfAThreadWithSevenDigitsIsCutToTwentyFourCharactersAndANul) {
    m_Clock.SetRealTime(1000000, 123456789);
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

TEST_F(CPlaybackTest, IdentifierOfAClockThatFailsHasZeros) {
    SetContent();
    m_Clock.FailRealTime(true);
    Event(TY_EVENT_START);
    EXPECT_EQ(Reported().at(0).playbackID, Identifier(gettid(), 0, 0));
}

TEST_F(CPlaybackTest, SecondPlaybackHasAnIdentifierOfItsOwnAndNoStartTime) {
    StartPlayback(4711);
    Event(TY_EVENT_STOP);
    m_Clock.SetRealTime(2000000, 7);
    Event(TY_EVENT_START);
    const auto records = Reported();
    EXPECT_EQ(records.at(0).param1, 4711);
    EXPECT_EQ(records.at(1).playbackID, Identifier(gettid(), 1000000, 5));
    EXPECT_EQ(records.at(2).param1, -1);
    EXPECT_EQ(records.at(2).playbackID, Identifier(gettid(), 2000000, 7));
}

TEST_F(CPlaybackTest, SecondPlaybackKnowsNeitherPositionNorPauseNorFrame) {
    StartRendering();
    Event(TY_EVENT_PLAYBACK_TIME, 5000);
    Event(TY_EVENT_PAUSE);
    Event(TY_EVENT_STOP);
    Event(TY_EVENT_START);
    Event(TY_EVENT_PLAYBACK_TIME, 7000);
    Event(TY_EVENT_SEEK);
    Event(TY_EVENT_RENDER_START);
    Event(TY_EVENT_PLAYBACK_TIME, 9000);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "6 0 0", "8 5000 0", "3 5000 0", "2 5000 0",
                                             "1 -1 0", "9 -1 0", "6 0 0", "8 9000 0"));
    EXPECT_TRUE(NotLogged("[EXCUTE] event type : 205"));
}

TEST_F(CPlaybackTest, ContentOutlivesThePlayback) {
    StartPlayback();
    Event(TY_EVENT_STOP);
    Event(TY_EVENT_START);
    EXPECT_STREQ(Reported().at(2).content.title, "Film");
    EXPECT_THAT(SentUrls(), testing::Each("film.mp4"));
}

TEST_F(CPlaybackTest, HeartbeatAnchorsTheNext) {
    EXPECT_THAT(Positions({0, 180000, 359999, 360000}),
                ElementsAre("8 0 0", "20 180000 180000", "20 360000 180000"));
}

TEST_F(CPlaybackTest, ContentSetDuringAPlaybackDoesNotMoveTheReferencePosition) {
    StartRendering();
    Event(TY_EVENT_PLAYBACK_TIME, 0);
    SetContent("film.mp4", "Film", 1000000);
    Event(TY_EVENT_PLAYBACK_TIME, 180000);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "6 0 0", "8 0 0", "20 180000 180000"));
}

TEST_F(CPlaybackTest, EveryEventIsLogged) {
    StartPlayback();
    Event(9, 5, 6);
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "[EXCUTE] event type : 9"));
}

TEST_F(CPlaybackTest, OneMillisecondBackIsAJump) {
    EXPECT_THAT(Positions({5000, 4999}), ElementsAre("8 5000 0", "204 4999 5000"));
}

TEST_F(CPlaybackTest, PositionOfMinusOneAnchorsNothing) {
    EXPECT_THAT(Positions({-1, 500, 600}), ElementsAre("8 -1 0", "8 500 0"));
}

TEST_F(CPlaybackTest, HeartbeatGoesOnBeyondTheLargestPosition) {
    EXPECT_THAT(Positions({INT_MAX, INT_MIN + 179999}),
                ElementsAre("8 2147483647 0", "20 -2147303649 180000"));
}

TEST_F(CPlaybackTest, IgnoredPositionsAreNotRemembered) {
    StartRendering();
    Event(TY_EVENT_PLAYBACK_TIME, 1000);
    Event(TY_EVENT_PAUSE);
    Event(TY_EVENT_PLAYBACK_TIME, 5000);
    Event(TY_EVENT_STOP);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "6 0 0", "8 1000 0", "3 1000 0", "2 1000 0"));
}

TEST_F(CPlaybackTest, PositionBelowTheHeartbeatIsRememberedAllTheSame) {
    StartRendering();
    Event(TY_EVENT_PLAYBACK_TIME, 1000);
    Event(TY_EVENT_PLAYBACK_TIME, 2000);
    Event(TY_EVENT_SEEK, 9);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "6 0 0", "8 1000 0", "9 2000 9"));
}

TEST_F(CPlaybackTest, CodesKeepTheirLowByte) {
    StartPlayback();
    Event(300, 1, 2);
    Collector().SendMediaError(static_cast<TY_ERROR_TYPE>(301));
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "44 1 2", "45 0 0"));
}

TEST_F(CPlaybackTest, PlayingTimeOfAPlayerIsRecordedAsItIs) {
    StartPlayback();
    Event(TY_EVENT_PLAYING_TIME, 1, 2);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "20 1 2"));
}

TEST_F(CPlaybackTest, SignalThatCannotBeReadIsMinusTwoHundred) {
    m_Platform.connectionType = CONNECTION_TYPE_WIFI;
    m_Platform.rssiResult = -1;
    StartPlayback();
    Event(TY_EVENT_BUFFERING_START, 3, 4);
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "4 -1 -200"));
}

TEST_F(CPlaybackTest, ErrorDuringAPlaybackCarriesItsIdentifier) {
    StartPlayback();
    Collector().SendMediaError(static_cast<TY_ERROR_TYPE>(31));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "[EXCUTE] error type : 31"));
    EXPECT_TRUE(NotLogged("Do not start play, but collect error event 31"));
    const TYMediaData record = Reported().at(1);
    EXPECT_EQ(record.event, 31);
    EXPECT_EQ(record.playbackID, Identifier(gettid(), 1000000, 5));
}

TEST_F(CPlaybackTest, ErrorBeforeAStartNeedsAUrlButNotALongOne) {
    SetContent("", "Title");
    Collector().SendMediaError(static_cast<TY_ERROR_TYPE>(31));
    EXPECT_THAT(ReportedTexts(), ElementsAre("31 0 0"));
    EXPECT_THAT(SentUrls(), ElementsAre(""));
}

TEST_F(CPlaybackTest, ErrorDoesNotStartAPlayback) {
    SetContent();
    Collector().SendMediaError(static_cast<TY_ERROR_TYPE>(31));
    Event(TY_EVENT_STOP);
    EXPECT_THAT(ReportedTexts(), ElementsAre("31 0 0"));
}

TEST_F(CPlaybackTest, EventsAfterAStopAreDropped) {
    StartPlayback();
    Event(TY_EVENT_STOP);
    Event(TY_EVENT_STOP);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "Do not start play, so do not collect data 2"));
    EXPECT_THAT(ReportedTexts(), ElementsAre("1 0 0", "2 -1 0"));
}

}  // namespace
