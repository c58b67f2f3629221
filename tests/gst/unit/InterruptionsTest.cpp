// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "MapperFixture.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using enum TYPipelineState;

/// A playback whose first frame was reported at 1000.
class CInterruptionsTest : public CMapperTest {
  protected:
    void SetUp() override {
        StartPlayback();
        RunUntil(1500);
        Reported();
    }
    void Low(int time) { At(time, TYBuffering{true}); }
    void Full(int time) { At(time, TYBuffering{false}); }
};

TEST_F(CInterruptionsTest, AStallIsFromThePauseOfTheApplicationToPlaying) {
    Low(2000);
    Pause(2001);
    Full(6500);
    Play(6510);
    RunUntil(9000);
    EXPECT_THAT(Reported(), ElementsAre("2001 BUFFERING_START", "6510 BUFFERING_END(0, 3)"));
}

TEST_F(CInterruptionsTest, BufferingMayComeAfterThePause) {
    Pause(2000);
    Low(2200);
    Full(4000);
    Play(4001);
    RunUntil(9000);
    EXPECT_THAT(Reported(), ElementsAre("2000 BUFFERING_START", "4001 BUFFERING_END(0, 3)"));
}

TEST_F(CInterruptionsTest, AStallOfLessThan100MsIsNotReported) {
    Low(2000);
    Pause(2001);
    Full(2007);
    Play(2099);
    RunUntil(9000);
    EXPECT_THAT(Reported(), IsEmpty());
}

TEST_F(CInterruptionsTest, BufferingBeforeTheFirstFrameIsNotReported) {
    State(10'000, PLAYING, READY);
    At(20'000, TYSourceReady{"http://example.org/b.mp4"});
    Low(20'100);
    Full(24'000);
    Play(24'001);
    RunUntil(25'000);
    EXPECT_THAT(Reported(), ElementsAre("10000 STOP(0, 2)", "20000 START", "24001 RENDER_START"));
}

TEST_F(CInterruptionsTest, ALowBufferIsNoStallWhileThePictureMoves) {
    Low(2000);
    Samples(1600, 5000, 600);
    Full(4000);
    RunUntil(4500);
    EXPECT_THAT(Reported(), IsEmpty());
}

TEST_F(CInterruptionsTest, APositionThatStandsIsAStall) {
    Samples(1600, 3000, 600);
    Samples(3000, 5000, 1940, 0);
    Samples(5000, 6000, 1970);
    RunUntil(5800);
    EXPECT_THAT(Reported(), ElementsAre("2940 BUFFERING_START", "4970 BUFFERING_END(0, 3)"));
}

TEST_F(CInterruptionsTest, APositionThatJumpsAfterAStallMovedBetweenTheTwoLooks) {
    Samples(1600, 3000, 600);
    Samples(3000, 5000, 1940, 0);
    Samples(5000, 6000, 4000);
    RunUntil(5800);
    EXPECT_THAT(Reported(), ElementsAre("2940 BUFFERING_START", "4950 BUFFERING_END(0, 3)"));
}

TEST_F(CInterruptionsTest, APositionThatStandsAtTheEndIsNoStall) {
    At(1550, TYSample{.position = 550, .duration = 2000, .isAsked = true});
    Samples(1600, 3000, 600);
    Samples(3000, 4000, 2000, 0);
    RunUntil(3700);
    EXPECT_THAT(Reported(), IsEmpty());
}

TEST_F(CInterruptionsTest, APauseWithoutBufferingIsTheViewers) {
    Pause(3000);
    At(3000, TYAsyncDone{});
    Play(5000);
    RunUntil(6000);
    EXPECT_THAT(Reported(), ElementsAre("3000 PAUSE", "5000 RESUME"));
}

TEST_F(CInterruptionsTest, TheExtrapolatedPositionIsReportedBeforeAPause) {
    Samples(1600, 2000, 600);
    Pause(1950);
    RunUntil(2500);
    EXPECT_EQ(m_Collector.m_Positions.back(), "1950: 950");
    EXPECT_EQ(m_Collector.m_All.back(), "PAUSE");
}

TEST_F(CInterruptionsTest, ABufferThatWasLowWhenThePipelineStoppedIsNoStallLater) {
    StartPlayback();
    At(2000, TYBuffering{true});
    State(2100, TYPipelineState::PAUSED, TYPipelineState::READY);
    At(3000, TYSourceReady{"file:///film.mp4"});
    Play(3500);
    Samples(3500, 5000, 0);
    Pause(5000);
    Play(6000);
    RunUntil(6500);
    EXPECT_THAT(Reported(), testing::IsSupersetOf({"5000 PAUSE", "6000 RESUME"}));
}

TEST_F(CInterruptionsTest, APipelineThatStaysPausedWhenTheBufferIsFullIsPausedByTheViewer) {
    Low(2000);
    Pause(2001);
    Full(4000);
    Play(4251);
    RunUntil(6000);
    EXPECT_THAT(Reported(), ElementsAre("2001 BUFFERING_START", "4000 BUFFERING_END(0, 3)",
                                        "4000 PAUSE", "4251 RESUME"));
}

TEST_F(CInterruptionsTest, ATeardownIsNoPause) {
    State(3000, PLAYING, PAUSED, NULL_STATE);
    State(3010, PAUSED, READY, NULL_STATE);
    RunUntil(4000);
    EXPECT_THAT(Reported(), ElementsAre("3010 STOP(0, 2)"));
}

TEST_F(CInterruptionsTest, APictureThatStopsWithoutTheApplicationIsNoPause) {
    State(3000, PAUSED, PAUSED, PAUSED);
    Play(3200);
    RunUntil(4000);
    EXPECT_THAT(Reported(), IsEmpty());
}

TEST_F(CInterruptionsTest, ASeekIsReportedOnceForAllSinks) {
    Seek(3000, 20'000, 7);
    Seek(3001, 20'000, 7);
    RunUntil(3500);
    EXPECT_THAT(Reported(), ElementsAre("3000 SEEK(20000, 0)"));
}

TEST_F(CInterruptionsTest, ASeekIsCompleteAtTheFirstPlayingAfterAsyncDone) {
    Seek(3000, 20'000, 7);
    FlushAndPreroll(3001, 5000);
    Play(5100);
    RunUntil(6000);
    EXPECT_THAT(Reported(), ElementsAre("3000 SEEK(20000, 0)", "5100 SEEK_COMPLETE"));
}

TEST_F(CInterruptionsTest, APlayingThatWasUnderWayBeforeASeekDoesNotCompleteIt) {
    Seek(3000, 20'000, 7);
    State(3001, PAUSED, PAUSED, PAUSED);
    Play(3002);
    FlushAndPreroll(3003, 5000);
    Play(5100);
    RunUntil(6000);
    EXPECT_THAT(Reported(), ElementsAre("3000 SEEK(20000, 0)", "5100 SEEK_COMPLETE"));
}

TEST_F(CInterruptionsTest, ASeekInAPauseIsCompleteAtAsyncDone) {
    Pause(3000);
    Seek(4000, 20'000, 7);
    State(4001, PAUSED, PAUSED, PAUSED);
    State(4500, PAUSED, PAUSED, VOID_PENDING);
    At(4500, TYAsyncDone{});
    Play(8000);
    RunUntil(9000);
    EXPECT_THAT(Reported(), ElementsAre("3000 PAUSE", "4000 SEEK(20000, 0)", "4500 SEEK_COMPLETE",
                                        "8000 RESUME"));
}

TEST_F(CInterruptionsTest, APauseForASeekIsPartOfTheSeek) {
    Pause(3000);
    Seek(3200, 20'000, 7);
    State(3201, PAUSED, PAUSED, PAUSED);
    State(3500, PAUSED, PAUSED, VOID_PENDING);
    At(3500, TYAsyncDone{});
    Play(3510);
    RunUntil(5000);
    EXPECT_THAT(Reported(), ElementsAre("3200 SEEK(20000, 0)", "3510 SEEK_COMPLETE"));
}

TEST_F(CInterruptionsTest, APipelineThatStaysPausedAfterASeekIsPausedByTheViewer) {
    Pause(3000);
    Seek(3200, 20'000, 7);
    State(3201, PAUSED, PAUSED, PAUSED);
    State(3500, PAUSED, PAUSED, VOID_PENDING);
    At(3500, TYAsyncDone{});
    RunUntil(5000);
    EXPECT_THAT(Reported(), ElementsAre("3200 SEEK(20000, 0)", "3500 SEEK_COMPLETE", "3500 PAUSE"));
}

TEST_F(CInterruptionsTest, TheBufferingOfASeekNestsInIt) {
    Seek(3000, 20'000, 7);
    Low(3010);
    State(3011, PAUSED, PAUSED, PAUSED);
    State(3900, PAUSED, PAUSED, VOID_PENDING);
    At(3900, TYAsyncDone{});
    Full(6000);
    Play(6010);
    RunUntil(7000);
    EXPECT_THAT(Reported(), ElementsAre("3000 SEEK(20000, 0)", "3010 BUFFERING_START",
                                        "6010 BUFFERING_END(0, 2)", "6010 SEEK_COMPLETE"));
}

TEST_F(CInterruptionsTest, ASeekEndsTheStallBeforeIt) {
    Low(2000);
    Pause(2001);
    Seek(3000, 20'000, 7);
    RunUntil(3500);
    EXPECT_THAT(Reported(), ElementsAre("2001 BUFFERING_START", "3000 BUFFERING_END(0, 3)",
                                        "3000 SEEK(20000, 0)", "3000 BUFFERING_START"));
}

TEST_F(CInterruptionsTest, ASeekDuringASeekIsReported) {
    Seek(3000, 20'000, 7);
    State(3001, PAUSED, PAUSED, PAUSED);
    Seek(3100, 10'000, 8);
    FlushAndPreroll(3101, 4000);
    Play(4001);
    RunUntil(5000);
    EXPECT_THAT(Reported(),
                ElementsAre("3000 SEEK(20000, 0)", "3100 SEEK(10000, 0)", "4001 SEEK_COMPLETE"));
}

TEST_F(CInterruptionsTest, ASeekWithoutFlushIsCompleteAtTheNextSegment) {
    Seek(3000, 20'000, 7, false);
    At(4000, TYSegment{});
    RunUntil(5000);
    EXPECT_THAT(Reported(), ElementsAre("3000 SEEK(20000, 0)", "4000 SEEK_COMPLETE"));
}

TEST_F(CInterruptionsTest, ARefusedSeekIsCompleteWhenThePictureHasMovedForASecond) {
    Seek(3000, 20'000, 7);
    Samples(3050, 5000, 2050);
    RunUntil(4600);
    EXPECT_THAT(Reported(), ElementsAre("3000 SEEK(20000, 0)", "4050 SEEK_COMPLETE"));
}

TEST_F(CInterruptionsTest, ARefusedSeekBeforeTheFirstFrameDoesNotHideIt) {
    State(10'000, PLAYING, READY);
    At(20'000, TYSourceReady{"http://example.org/b.mp4"});
    State(20'100, READY, PAUSED);
    Seek(20'200, 5000, 7);
    Play(20'900);
    RunUntil(22'000);
    EXPECT_THAT(Reported(), ElementsAre("10000 STOP(0, 2)", "20000 START", "20200 SEEK(5000, 0)",
                                        "20900 SEEK_COMPLETE", "20900 RENDER_START"));
}

TEST_F(CInterruptionsTest, ARefusedSeekInAPauseIsCompleteWhenThePictureGoesOn) {
    Pause(3000);
    Seek(4000, 20'000, 7);
    Play(5000);
    RunUntil(6000);
    EXPECT_THAT(Reported(), ElementsAre("3000 PAUSE", "4000 SEEK(20000, 0)", "5000 SEEK_COMPLETE",
                                        "5000 RESUME"));
}

TEST_F(CInterruptionsTest, APauseSoonAfterARefusedSeekIsTheViewers) {
    Seek(3000, 20'000, 7);
    Pause(3400);
    Play(5000);
    RunUntil(6000);
    EXPECT_THAT(Reported(), ElementsAre("3000 SEEK(20000, 0)", "3400 SEEK_COMPLETE", "3400 PAUSE",
                                        "5000 RESUME"));
}

TEST_F(CInterruptionsTest, SinksLoseTheirStateOnceForTwoSeeks) {
    Seek(3000, 20'000, 7);
    State(3001, PLAYING, PAUSED, PAUSED);
    Seek(3500, 10'000, 8);
    Play(3510);
    State(3511, PLAYING, PAUSED);
    State(5000, PAUSED, PAUSED, PLAYING);
    At(5000, TYAsyncDone{});
    Play(5010);
    RunUntil(6000);
    EXPECT_THAT(Reported(),
                ElementsAre("3000 SEEK(20000, 0)", "3500 SEEK(10000, 0)", "5010 SEEK_COMPLETE"));
}

TEST_F(CInterruptionsTest, SlowMotionIsNoStall) {
    At(1600, TYRate{0.125});
    for (int time = 1600; time < 5000; time += 100) {
        At(time, TYSample{.position = 600 + (time - 1600) / 8});
    }
    RunUntil(4800);
    EXPECT_THAT(Reported(), IsEmpty());
}

TEST_F(CInterruptionsTest, ThePictureMovesAtTheNewRateAtOnce) {
    Samples(1600, 1700, 600);
    At(1700, TYRate{2});
    Pause(1800);
    RunUntil(2500);
    EXPECT_EQ(m_Collector.m_Positions.back(), "1800: 900");
}

TEST_F(CInterruptionsTest, ASeekToTheEndIsToTheDuration) {
    At(2000, TYSample{.position = 1000, .duration = 30'000, .isAsked = true});
    At(3000, TYSeek{7, TYSeek::Target::END, kGstUnknown, true, 1});
    RunUntil(3500);
    EXPECT_THAT(Reported(), ElementsAre("3000 SEEK(30000, 0)"));
}

TEST_F(CInterruptionsTest, ASeekThatChangesOnlyTheRateIsToThePresentPosition) {
    Samples(2000, 2100, 1000);
    At(3000, TYSeek{7, TYSeek::Target::SAME_PLACE, kGstUnknown, true, 2});
    RunUntil(3500);
    EXPECT_THAT(Reported(), ElementsAre("3000 SEEK(2000, 0)"));
}

}  // namespace
