// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDelayLine.h"

#include <gtest/gtest.h>

namespace {

constexpr std::int64_t kDelay = CTYDelayLine::kReportDelay;

TEST(CTYDelayLineTest, AnEventIsTakenWhenItIsDue) {
    CTYDelayLine line;
    line.Insert({1000, TYAsyncDone{}});
    EXPECT_EQ(line.NextDue(), 1000 + kDelay);
    EXPECT_FALSE(line.TakeDue(1000 + kDelay - 1));
    EXPECT_TRUE(line.TakeDue(1000 + kDelay));
    EXPECT_FALSE(line.NextDue());
}

TEST(CTYDelayLineTest, ASampleMayWaitForTheLookThatIsDueAtTheSameTime) {
    CTYDelayLine line;
    line.Insert({1000, TYSample{}});
    EXPECT_EQ(line.NextDue(), 6000 + kDelay);
    EXPECT_TRUE(line.TakeDue(1000 + kDelay)) << "if the thread is awake";
}

TEST(CTYDelayLineTest, NoOtherEventWaitsForASample) {
    CTYDelayLine line;
    line.Insert({1000, TYSample{}});
    line.Insert({2000, TYAsyncDone{}});
    EXPECT_EQ(line.NextDue(), 2000 + kDelay);
}

TEST(CTYDelayLineTest, APlaybackThatStartsLateIsLateToItsEnd) {
    CTYDelayLine line;
    line.SetLate(7000);
    line.Insert({1000, TYAsyncDone{}});
    EXPECT_EQ(line.NextDue(), 8000 + kDelay);
    EXPECT_EQ(line.LateBy(9000 + kDelay), 8000);
}

}  // namespace
