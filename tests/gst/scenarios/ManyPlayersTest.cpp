// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ScenarioFixture.h"

#include <cstdlib>

using testing::SizeIs;

namespace {

int Players() {
    const char* times = std::getenv("TALLYRA_STRESS_TIMES");
    return times != nullptr ? std::atoi(times) : 10;
}

// script/stress runs all instances at once.
class ManyPlayers : public CScenarioTest, public testing::WithParamInterface<int> {};

TEST_P(ManyPlayers, AtOnceAreReportedAsTheirViewersSawThem) {
    PLAY(R"({"files": {"hls/v?_05.ts": {"hold": 8}, "hls/v?_06.ts": {"hold": 8}}})",
         "hls/master.m3u8");
    const CPlayback playback = Playback();
    ExpectStory(playback, "START RENDER_START BUFFERING_START BUFFERING_END STOP",
                TY_STOP_END_OF_CONTENT);
    ASSERT_THAT(Gaps(), SizeIs(1));
    ExpectStalls(playback, TY_STALL_CONNECTION);
    ExpectRenditions(playback);
}

INSTANTIATE_TEST_SUITE_P(Stress, ManyPlayers, testing::Range(0, Players()));

}  // namespace
