// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "MapperFixture.h"

#include <gmock/gmock.h>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using enum TYPipelineState;

constexpr const char* kUri = "http://example.org/a/film.mp4";

using CPlaybackMapperTest = CMapperTest;

TEST_F(CPlaybackMapperTest, APlaybackStartsWithItsSourceAndRendersWithTheFirstPlaying) {
    State(0, NULL_STATE, READY, PLAYING);
    At(20, TYSourceReady{kUri});
    State(900, READY, PAUSED, PLAYING);
    Play(901);
    RunUntil(2000);
    EXPECT_THAT(Reported(), ElementsAre("20 START", "901 RENDER_START"));
}

TEST_F(CPlaybackMapperTest, ReportsAreMade250MsAfterTheEvent) {
    At(1000, TYSourceReady{kUri});
    m_Mapper.Advance(1'249'999);
    EXPECT_THAT(Reported(), IsEmpty());
    m_Mapper.Advance(1'250'000);
    EXPECT_THAT(m_Collector.m_All, ElementsAre("START"));
}

TEST_F(CPlaybackMapperTest, AClosedMapperIsFinishedWhenThePlaybackIsReported) {
    EXPECT_TRUE(m_Mapper.IsFinished());
    At(1000, TYSourceReady{kUri});
    At(2000, TYClosed{});
    EXPECT_FALSE(m_Mapper.IsFinished());
    RunUntil(1999);
    EXPECT_FALSE(m_Mapper.IsFinished());
    RunUntil(2000);
    EXPECT_TRUE(m_Mapper.IsFinished());
    EXPECT_EQ(Reported().back(), "2000 STOP(0, 5)");
}

TEST_F(CPlaybackMapperTest, EventsAreReportedInTheOrderOfTheirTimes) {
    Play(1000);
    At(500, TYSourceReady{kUri});
    RunUntil(2000);
    EXPECT_THAT(Reported(), ElementsAre("500 START", "1000 RENDER_START"));
}

TEST_F(CPlaybackMapperTest, TheLastReadyIsTheViewersStop) {
    StartPlayback();
    State(3000, PAUSED, READY, NULL_STATE);
    RunUntil(4000);
    EXPECT_EQ(Reported().back(), "3000 STOP(0, 2)");
}

TEST_F(CPlaybackMapperTest, AStopBeforeTheFirstFrameIsSeenInTheTargetState) {
    At(0, TYSourceReady{kUri});
    At(500, TYSample{.isStopped = true});
    RunUntil(1000);
    EXPECT_THAT(Reported(), ElementsAre("0 START", "500 STOP(0, 2)"));
}

TEST_F(CPlaybackMapperTest, TheEndOfTheStreamIsAtTheDuration) {
    StartPlayback();
    At(2000, TYSample{.position = 1000, .duration = 2000, .isAsked = true});
    At(2980, TYEndOfStream{});
    RunUntil(4000);
    EXPECT_EQ(Reported().back(), "2980 STOP(0, 1)");
    EXPECT_EQ(m_Collector.m_Positions.back(), "2980: 2000");
}

TEST_F(CPlaybackMapperTest, TheEndOfTheObserverEndsThePlayback) {
    StartPlayback();
    At(3000, TYClosed{});
    RunUntil(4000);
    EXPECT_EQ(Reported().back(), "3000 STOP(0, 5)");
}

TEST_F(CPlaybackMapperTest, AStopEndsTheStallBeforeIt) {
    StartPlayback();
    At(2000, TYBuffering{true});
    Pause(2001);
    At(5000, TYClosed{});
    RunUntil(6000);
    EXPECT_THAT(Reported(), ElementsAre("0 START", "1000 RENDER_START", "2001 BUFFERING_START",
                                        "5000 BUFFERING_END(0, 3)", "5000 STOP(0, 5)"));
}

TEST_F(CPlaybackMapperTest, OnlyTheFirstErrorOfAPlaybackIsReported) {
    At(0, TYSourceReady{kUri});
    At(100, TYGstError{"gst-resource-error-quark", 9, "Could not read.", 404});
    At(101, TYGstError{"gst-stream-error-quark", 1, "Internal data stream error.", 0});
    RunUntil(1000);
    EXPECT_THAT(Reported(), ElementsAre("0 START", "100 error 216",
                                        "100 (216, 404) gst-resource-error-quark: Could not "
                                        "read. (HTTP 404)",
                                        "100 STOP(0, 3)"));
}

TEST_F(CPlaybackMapperTest, ASourceThatAFailedPlayerMakesOnItsTeardownIsNotPlayed) {
    StartPlayback();
    At(2000, TYGstError{"gst-stream-error-quark", 1, "Failed.", 0});
    At(2010, TYAboutToFinish{});
    At(2011, TYSourceReady{"http://example.org/next.mp4"});
    RunUntil(3000);
    EXPECT_EQ(Reported().back(), "2000 STOP(0, 3)");
}

TEST_F(CPlaybackMapperTest, APlayerThatFailedMayPlayAgain) {
    StartPlayback();
    At(2000, TYGstError{"gst-stream-error-quark", 1, "Failed.", 0});
    State(2100, PAUSED, READY);
    At(3000, TYSourceReady{kUri});
    RunUntil(4000);
    EXPECT_EQ(Reported().back(), "3000 START");
}

TEST_F(CPlaybackMapperTest, AnErrorOfTheNextSourceIsNotToldOfTheFilmThatPlays) {
    StartPlayback();
    At(2000, TYAboutToFinish{});
    At(2001, TYSourceReady{"http://example.org/gone.mp4"});
    At(2010, TYGstError{"gst-resource-error-quark", 3, "Not found.", 404});
    At(2011, TYGstError{"gst-stream-error-quark", 1, "Internal data stream error.", 0});
    RunUntil(3000);
    EXPECT_THAT(Reported(), ElementsAre("0 START", "1000 RENDER_START", "2010 STOP(0, 4)",
                                        "2010 START", "2010 error 216",
                                        "2010 (216, 404) gst-resource-error-quark: Not found. "
                                        "(HTTP 404)",
                                        "2010 STOP(0, 3)"));
}

TEST_F(CPlaybackMapperTest, AMessageThatQuotesAWrongUriKeepsItsSecret) {
    At(0, TYSourceReady{"film?token=secret"});
    At(1, TYGstError{"gst-resource-error-quark", 3, "Invalid URI \"film?token=secret\".", 0});
    RunUntil(1000);
    EXPECT_THAT(Reported(), Contains("1 (216, 0) gst-resource-error-quark: Invalid URI \"film\"."));
}

// The clock of these reports shows 250 ms less.
TEST_F(CPlaybackMapperTest, APlaybackThatIsReportedLateKeepsItsDistances) {
    StartPlayback();
    State(4000, PLAYING, READY);
    m_Mapper.Advance(2'000'000);
    RunUntil(3000);
    EXPECT_THAT(Reported(), ElementsAre("0 START", "2750 RENDER_START"));
    RunUntil(6000);
    EXPECT_THAT(Reported(), ElementsAre("5750 STOP(0, 2)"));
    At(8000, TYSourceReady{kUri});
    RunUntil(9000);
    EXPECT_THAT(Reported(), ElementsAre("8000 START")) << "in time again";
}

TEST_F(CPlaybackMapperTest, AShortFilmMayBeReadWholeBeforeItsFirstFrame) {
    At(0, TYSourceReady{kUri});
    At(100, TYSourceReady{"http://example.org/next.mp4"});
    At(101, TYAboutToFinish{});
    Play(200);
    At(6200, TYStreamStart{});
    RunUntil(7000);
    EXPECT_THAT(Reported(), ElementsAre("0 START", "200 RENDER_START", "6200 STOP(0, 1)",
                                        "6200 START", "6200 RENDER_START"));
}

TEST_F(CPlaybackMapperTest, TheNextContentOfAGaplessListStartsWithItsStream) {
    StartPlayback();
    At(9000, TYAboutToFinish{});
    At(9001, TYSourceReady{"http://example.org/next.mp4"});
    At(10'000, TYStreamStart{});
    RunUntil(11'000);
    EXPECT_THAT(Reported(), ElementsAre("0 START", "1000 RENDER_START", "10000 STOP(0, 1)",
                                        "10000 START", "10000 RENDER_START"));
    EXPECT_EQ(m_Collector.m_Contents.back(), "http://example.org/next.mp4 'next.mp4' 0");
}

TEST_F(CPlaybackMapperTest, WhatComesBeforeTheStreamOfTheNextContentIsNotOfThisOne) {
    StartPlayback();
    At(9000, TYAboutToFinish{});
    At(9001, TYSourceReady{"http://example.org/next.mp4"});
    At(9300, TYTags{"Next", "", 400, true});
    At(9301, TYTags{"", "", 100, false});
    At(9990, TYPictureSize{640, 360});
    At(10'000, TYStreamStart{});
    RunUntil(9999);
    EXPECT_EQ(m_Collector.m_Contents.size(), 1U);
    RunUntil(11'000);
    EXPECT_EQ(m_Collector.m_Contents.back(), "http://example.org/next.mp4 'Next' 0");
    EXPECT_THAT(Reported(),
                ElementsAre("0 START", "1000 RENDER_START", "10000 STOP(0, 1)", "10000 START",
                            "10000 RENDER_START", "10000 RENDITION(500, 41943400)"));
}

TEST_F(CPlaybackMapperTest, AnotherSourceWithoutAnnouncementReplacesTheContent) {
    StartPlayback();
    At(9001, TYSourceReady{"http://example.org/next.mp4"});
    At(10'000, TYStreamStart{});
    RunUntil(11'000);
    EXPECT_THAT(Reported(), Contains("10000 STOP(0, 4)"));
}

TEST_F(CPlaybackMapperTest, AStreamWithoutANewSourceIsAChangeOfTheVariant) {
    StartPlayback();
    At(9000, TYStreamStart{});
    RunUntil(10'000);
    EXPECT_THAT(Reported(), ElementsAre("0 START", "1000 RENDER_START"));
}

TEST_F(CPlaybackMapperTest, ASeekAfterTheEndStartsThePlaybackOnceMore) {
    StartPlayback();
    At(5000, TYEndOfStream{});
    Seek(8000, 3000, 7);
    FlushAndPreroll(8001, 8100);
    Play(8101);
    RunUntil(9000);
    EXPECT_THAT(Reported(), ElementsAre("0 START", "1000 RENDER_START", "5000 STOP(0, 1)",
                                        "8000 START", "8101 RENDER_START"));
    EXPECT_EQ(m_Collector.m_Contents.back(), std::string(kUri) + " 'film.mp4' 3000");
}

TEST_F(CPlaybackMapperTest, ThePositionIsReportedOnceASecondWhileThePictureMoves) {
    StartPlayback();
    Samples(1000, 3500, 0);
    Pause(3450);
    RunUntil(6000);
    EXPECT_THAT(m_Collector.m_Positions,
                ElementsAre("1000: 0", "2000: 1000", "3000: 2000", "3450: 2450"));
}

TEST_F(CPlaybackMapperTest, FramesAreReportedOnceAMinuteAndBeforeStop) {
    StartPlayback();
    for (int time = 1000; time <= 62'000; time += 100) {
        At(time, TYSample{.position = time - 1000, .framesDropped = 3, .framesRendered = time});
    }
    At(62'050, TYClosed{});
    RunUntil(63'000);
    EXPECT_THAT(Reported(),
                ElementsAre("0 START", "1000 RENDER_START", "61000 DROPPED_FRAMES(3, 61000)",
                            "62050 DROPPED_FRAMES(3, 62000)", "62050 STOP(0, 5)"));
}

TEST_F(CPlaybackMapperTest, FramesOfEarlierPlaybacksDoNotCount) {
    StartPlayback();
    At(2000, TYSample{.position = 1000, .framesDropped = 5, .framesRendered = 100});
    At(3000, TYEndOfStream{});
    State(3500, PLAYING, READY);
    At(4000, TYSourceReady{kUri});
    Play(5000);
    At(5500, TYSample{.position = 500, .framesDropped = 6, .framesRendered = 110});
    At(6000, TYEndOfStream{});
    RunUntil(7000);
    EXPECT_THAT(Reported(), Contains("6000 DROPPED_FRAMES(1, 10)"));
}

TEST_F(CPlaybackMapperTest, WithoutFramesNoneAreReported) {
    StartPlayback();
    Samples(1000, 3000, 0);
    At(3000, TYEndOfStream{});
    RunUntil(4000);
    EXPECT_THAT(m_Collector.m_All, Not(Contains("DROPPED_FRAMES")));
}

}  // namespace
