// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYFrameCount.h"

#include <gtest/gtest.h>

namespace {

TEST(CTYFrameCountTest, TheCountsOfAllElementsAreAddedUp) {
    CTYFrameCount frames;
    const int decoder = 0;
    const int sink = 0;
    frames.Set(&decoder, 4, 0);
    frames.Set(&sink, 1, 100);
    EXPECT_EQ(frames.Get().dropped, 5U);
    EXPECT_EQ(frames.Get().rendered, 100U);
}

TEST(CTYFrameCountTest, ASinkThatCountsFromZeroAgainDoesNotLowerTheSum) {
    CTYFrameCount frames;
    const int sink = 0;
    frames.Set(&sink, 2, 100);
    frames.Set(&sink, 1, 10);
    EXPECT_EQ(frames.Get().dropped, 3U);
    EXPECT_EQ(frames.Get().rendered, 110U);
}

TEST(CTYFrameCountTest, AnElementAtTheAddressOfAnEarlierOneCountsFromZero) {
    CTYFrameCount frames;
    const int decoder = 0;
    frames.Set(&decoder, 3, 0);
    frames.Forget(&decoder);
    frames.Set(&decoder, 5, 0);
    EXPECT_EQ(frames.Get().dropped, 8U);
}

}  // namespace
