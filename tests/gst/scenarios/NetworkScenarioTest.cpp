// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ScenarioFixture.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::SizeIs;

namespace {

constexpr const char* kStalledOnce = "START RENDER_START BUFFERING_START BUFFERING_END STOP";
constexpr const char* kStalledTwice =
    "START RENDER_START BUFFERING_START BUFFERING_END BUFFERING_START BUFFERING_END STOP";
// Of 30 s in segments of 2 s: the buffer ends with the sixth, and the first of both segments has
// been waited for by then.
constexpr const char* kTwoHeld =
    R"({"files": {"hls/v?_05.ts": {"hold": 8}, "hls/v?_06.ts": {"hold": 8}}})";

// What the server does, and what that does to the playback.
using NetworkScenario = CScenarioTest;

TEST_F(NetworkScenario, TwoHeldSegmentsMakeOneStallAndTwoSwitches) {
    PLAY(kTwoHeld, "hls/master.m3u8");
    const CPlayback playback = Playback();
    ExpectStory(playback, kStalledOnce, TY_STOP_END_OF_CONTENT);
    ASSERT_THAT(Gaps(), SizeIs(1));
    ASSERT_THAT(Gaps()[0].Length(), AllOf(Ge(4), Le(6))) << "the plan does not do what it should";
    ExpectStalls(playback, TY_STALL_CONNECTION);
    ASSERT_THAT(SizesSeen(), ElementsAre(kSmall, kLarge, kSmall, kLarge));
    ExpectRenditions(playback);
    // GStreamer tells the rate of a variant when it switches to it.
    EXPECT_NEAR(playback.Sizes()[1].param1, 1408, 20) << "kbit/s, as the playlist has it";
    EXPECT_NEAR(playback.Sizes()[2].param1, 405, 20);
    EXPECT_EQ(KeyFigures().at("stalls"), 1);
}

TEST_F(NetworkScenario, APlayerThatDoesNotPauseForBufferingStallsAllTheSame) {
    PLAY(kTwoHeld, "hls/master.m3u8", {"--steady", "--at", "20:dispose"});
    const CPlayback playback = Playback();
    ExpectStory(playback, kStalledOnce, TY_STOP_USER);
    ASSERT_THAT(Gaps(), SizeIs(1));
    ExpectStalls(playback, TY_STALL_CONNECTION);
}

TEST_F(NetworkScenario, ASlowLinkMakesALongStartAndStalls) {
    PLAY(R"({"rate": 45000})", "hls/master.m3u8");
    const CPlayback playback = Playback();
    EXPECT_THAT(playback.One("START").time, Le(-3));
    // One or two, as the sizes of the segments are.
    ASSERT_THAT(Gaps(), SizeIs(Ge(1)));
    ExpectStory(playback, Gaps().size() == 1 ? kStalledOnce : kStalledTwice,
                TY_STOP_END_OF_CONTENT);
    ExpectStalls(playback, TY_STALL_CONNECTION);
    ExpectRenditions(playback);
    const auto switches = KeyFigures().at("switches");
    EXPECT_TRUE(switches.is_null() || switches == 0) << switches;
}

TEST_F(NetworkScenario, AMissingSegmentEndsThePlayback) {
    PLAY(R"({"rate": 100000, "files": {"hls/v?_05.ts": {"status": 404}}})", "hls/master.m3u8");
    const CPlayback playback = Playback();
    ExpectStory(playback, "START RENDER_START ERROR STOP", TY_STOP_FATAL_ERROR);
    EXPECT_NEAR(playback.One("ERROR").time, When("error"), kTolerance);
    EXPECT_THAT(playback.One("DETAILS").row.at("custom_info"),
                HasSubstr("gst-resource-error-quark"));
    EXPECT_EQ(playback.One("DETAILS").row.at("code"), playback.One("ERROR").row.at("code"));
    EXPECT_EQ(playback.One("DETAILS").param1, 404);
    EXPECT_NEAR(playback.One("STOP").param1, Said("last")[0].at("position").get<int>(), 150);
    EXPECT_EQ(KeyFigures().at("playback_failures"), 1);
}

TEST_F(NetworkScenario, AForbiddenManifestFailsTheStart) {
    PLAY(R"({"files": {"hls/master.m3u8": {"status": 403}}})", "hls/master.m3u8");
    const CPlayback playback = Playback();
    ExpectStory(playback, "START ERROR STOP", TY_STOP_FATAL_ERROR);
    EXPECT_EQ(playback.One("DETAILS").param1, 403);
    EXPECT_THAT(playback.One("DETAILS").row.at("custom_info"), HasSubstr("403"));
    EXPECT_EQ(KeyFigures().at("start_failures"), 1);
}

TEST_F(NetworkScenario, AServerThatGoesAndComesBackMakesTwoPlaybacks) {
    PLAY(R"({"rate": 100000, "away": [5, 8]})", "hls/master.m3u8",
         {"--again", "4", "--at", "18:dispose"});
    const CPlayback first = Playback(2, 0);
    ExpectStory(first, "START RENDER_START ERROR STOP", TY_STOP_FATAL_ERROR);
    EXPECT_NEAR(first.One("ERROR").time, When("error"), kTolerance);
    const CPlayback second = Playback(2, 1);
    EXPECT_EQ(second.Story(), "START RENDER_START STOP");
    const double shown = Said("picture").at(1).at("at");
    EXPECT_NEAR(second.One("RENDER_START").at - first.One("RENDER_START").at,
                shown - Said("picture")[0].at("at").get<double>(), kTolerance);
    EXPECT_NEAR(-second.One("START").time, shown - Said("call").at(4).at("at").get<double>(),
                kTolerance);
}

TEST_F(NetworkScenario, ACutConnectionThatThePlayerRepairsIsNotReported) {
    PLAY(R"({"rate": 200000, "files": {"hls/v?_03.ts": {"cut": 20000, "times": 1}}})",
         "hls/master.m3u8", {"--at", "10:dispose"});
    ASSERT_THAT(Gaps(), SizeIs(0));
    ExpectStory(Playback(), "START RENDER_START STOP", TY_STOP_USER);
}

}  // namespace
