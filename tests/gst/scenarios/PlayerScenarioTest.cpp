// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ScenarioFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr const char* kNothingSpecial = "START RENDER_START STOP";

// What the media, the player and its viewer do, over a server that does its best.
using PlayerScenario = CScenarioTest;

TEST_F(PlayerScenario, HlsPlaysToItsEnd) {
    PLAY("{}", "hls/master.m3u8");
    const CPlayback playback = Playback();
    ExpectStory(playback, kNothingSpecial, TY_STOP_END_OF_CONTENT);
    ASSERT_THAT(SizesSeen(), ElementsAre(kSmall, kLarge));
    ExpectRenditions(playback);
    const Event stop = playback.One("STOP");
    EXPECT_NEAR(stop.time, When("eos"), kTolerance);
    EXPECT_NEAR(stop.param1, 30000, 150);
    EXPECT_EQ(stop.row.at("url"), Address() + "/hls/master.m3u8");
    EXPECT_EQ(stop.row.at("title"), "master.m3u8");
    EXPECT_EQ(stop.row.at("content_type"), TY_CONTENT_VOD);
    EXPECT_NEAR(stop.row.at("duration_ms").get<int>(), 30000, 100);
    EXPECT_NEAR(playback.One("DROPPED_FRAMES").param2, Said("last").at(0).at("frames").get<int>(),
                3);
    EXPECT_EQ(KeyFigures().at("completed"), 1);
}

TEST_F(PlayerScenario, DashPlaysToItsEnd) {
    PLAY("{}", "dash/manifest.mpd");
    const CPlayback playback = Playback();
    ExpectStory(playback, kNothingSpecial, TY_STOP_END_OF_CONTENT);
    ASSERT_THAT(SizesSeen(), ElementsAre(kSmall, kLarge));
    ExpectRenditions(playback);
    EXPECT_NEAR(playback.One("STOP").param1, 30000, 150);
}

TEST_F(PlayerScenario, AChannelIsLiveAndHasNoEnd) {
    PLAY(R"({"files": {"hls/v?.m3u8": {"live": 5}}})", "hls/master.m3u8", {"--at", "10:dispose"});
    const CPlayback playback = Playback();
    ExpectStory(playback, kNothingSpecial, TY_STOP_USER);
    ExpectRenditions(playback);
    const Event stop = playback.One("STOP");
    EXPECT_EQ(stop.row.at("content_type"), TY_CONTENT_LIVE);
    EXPECT_EQ(stop.row.at("duration_ms"), 0);
    EXPECT_EQ(KeyFigures().at("completed"), 0);
}

TEST_F(PlayerScenario, TheOlderPlaybinReportsTheSame) {
    PLAY("{}", "hls/master.m3u8", {"--with", "playbin", "--at", "10:dispose"});
    const CPlayback playback = Playback();
    ASSERT_THAT(Gaps(), IsEmpty());
    ExpectStory(playback, kNothingSpecial, TY_STOP_USER);
    ExpectRenditions(playback);
}

TEST_F(PlayerScenario, AFilmPlaysToItsEndUnderItsTitle) {
    PLAY("{}", "film.mp4");
    const CPlayback playback = Playback();
    ExpectStory(playback, kNothingSpecial, TY_STOP_END_OF_CONTENT);
    const Event stop = playback.One("STOP");
    EXPECT_NEAR(stop.time, When("eos"), kTolerance);
    EXPECT_NEAR(stop.param1, 6000, 150);
    EXPECT_EQ(stop.row.at("title"), "The Long Way Home");
    EXPECT_NEAR(stop.row.at("duration_ms").get<int>(), 6000, 100);
    ExpectRenditions(playback);
}

TEST_F(PlayerScenario, SoundAlonePlaysToItsEnd) {
    PLAY("{}", "sound.ogg");
    const CPlayback playback = Playback();
    ExpectStory(playback, kNothingSpecial, TY_STOP_END_OF_CONTENT);
    EXPECT_NEAR(playback.One("STOP").time, When("eos"), kTolerance);
    EXPECT_EQ(playback.One("STOP").row.at("title"), "A Single Tone");
    EXPECT_THAT(playback.All("DROPPED_FRAMES"), IsEmpty());
}

TEST_F(PlayerScenario, APauseIsNoStall) {
    PLAY("{}", "film.mp4", {"--at", "2:pause", "--at", "4:play"});
    const CPlayback playback = Playback();
    ExpectStory(playback, "START RENDER_START PAUSE RESUME STOP", TY_STOP_END_OF_CONTENT);
    ASSERT_THAT(Pauses("viewer"), SizeIs(1));
    ExpectSame(playback.Spans("PAUSE", "RESUME"), Pauses("viewer"));
    EXPECT_NEAR(playback.One("PAUSE").param1, Said("gap").at(0).at("position").get<int>(), 150);
}

TEST_F(PlayerScenario, SeeksHoldTheirBuffering) {
    PLAY(R"({"rate": 120000, "files": {"hls/v?_12.ts": {"hold": 3}}})", "hls/master.m3u8",
         {"--at", "5:seek=2", "--at", "9:seek=24", "--at", "17:dispose"});
    const CPlayback playback = Playback();
    ASSERT_THAT(Gaps(), SizeIs(2));
    ExpectSame(playback.Spans("SEEK", "SEEK_COMPLETE"), Gaps());
    const auto seeks = playback.All("SEEK");
    for (std::size_t i = 0; i < seeks.size(); ++i) {
        EXPECT_EQ(seeks[i].param2, Said("seek").at(i).at("target"));
        EXPECT_NEAR(seeks[i].param1, Said("gap").at(i).at("position").get<int>(), 150);
    }
    for (const Event& end : playback.All("BUFFERING_END")) {
        EXPECT_EQ(end.param2, TY_STALL_SEEK);
    }
    EXPECT_EQ(KeyFigures().at("stalls"), 0);
    EXPECT_EQ(KeyFigures().at("seek_ms").at("n"), 2);
}

TEST_F(PlayerScenario, AListWithoutGapsIsOnePlaybackForEachFilm) {
    PLAY("{}", "film.mp4", {"--next", "@/next.mp4"});
    const CPlayback first = Playback(2, 0);
    const CPlayback second = Playback(2, 1);
    ExpectStory(first, kNothingSpecial, TY_STOP_END_OF_CONTENT);
    EXPECT_EQ(second.Story(), kNothingSpecial);
    EXPECT_EQ(first.One("STOP").row.at("title"), "The Long Way Home");
    EXPECT_EQ(second.One("STOP").row.at("title"), "The Short Way Back");
    const double change = Said("picture").at(1).at("time");
    EXPECT_NEAR(first.One("STOP").time, change, kTolerance);
    EXPECT_NEAR(second.One("RENDER_START").at - first.One("RENDER_START").at, change, kTolerance);
    EXPECT_EQ(second.One("STOP").param2, TY_STOP_END_OF_CONTENT);
}

TEST_F(PlayerScenario, AnApplicationThatClosesEndsItsPlayback) {
    PLAY("{}", "hls/master.m3u8", {"--at", "5:close"});
    const CPlayback playback = Playback();
    ExpectStory(playback, kNothingSpecial, TY_STOP_APPLICATION_CLOSED);
    EXPECT_NEAR(playback.One("STOP").time, When("close"), kTolerance);
    EXPECT_NEAR(playback.One("STOP").param1, 1000 * When("close"), 150);
}

TEST_F(PlayerScenario, APipelineDisposedBeforeItsFirstFrameIsAnExit) {
    PLAY(R"({"rate": 45000})", "hls/master.m3u8", {"--at", "2:dispose"});
    ASSERT_THAT(Said("picture"), IsEmpty());
    const CPlayback playback = Playback();
    EXPECT_EQ(playback.Story(), "START STOP");
    EXPECT_NEAR(playback.One("STOP").time, Said("call").back().at("time"), kTolerance);
    EXPECT_EQ(KeyFigures().at("exits_before_start"), 1);
}

TEST_F(PlayerScenario, APipelineDisposedWhileItStallsEndsTheStall) {
    PLAY(R"({"files": {"hls/v?_03.ts": {"hold": 30}}})", "hls/master.m3u8", {"--at", "9:dispose"});
    const CPlayback playback = Playback();
    ASSERT_THAT(Pauses("buffering"), SizeIs(2));
    const Event stall = playback.One("BUFFERING_START");
    EXPECT_NEAR(stall.time, Pauses("buffering")[1].begin, kTolerance);
    // The last position that was reported, once a second.
    EXPECT_NEAR(stall.param1, Said("last").at(0).at("position").get<int>() - 500, 650);
    EXPECT_NEAR(playback.One("STOP").time, Said("call").back().at("time"), kTolerance);
    EXPECT_EQ(playback.One("STOP").param2, TY_STOP_USER);
}

TEST_F(PlayerScenario, ARealSinkReportsTheSame) {
    StartDisplay();
    PLAY("{}", "film.mp4", {"--sink", "ximagesink"});
    const CPlayback playback = Playback();
    ExpectStory(playback, kNothingSpecial, TY_STOP_END_OF_CONTENT);
    EXPECT_NEAR(playback.One("STOP").time, When("eos"), kTolerance);
    EXPECT_EQ(playback.One("RENDITION").param2, kSmall);
}

TEST_F(PlayerScenario, AnUnmodifiedPlayerReportsThroughTheTracer) {
    PlayUnmodified("film.mp4");
    const CPlayback playback = Playback();
    EXPECT_EQ(playback.Story(), kNothingSpecial);
    EXPECT_EQ(playback.One("STOP").param2, TY_STOP_END_OF_CONTENT);
    EXPECT_NEAR(playback.One("STOP").time, 6, kTolerance);
    EXPECT_EQ(playback.One("STOP").row.at("title"), "The Long Way Home");
}

}  // namespace
