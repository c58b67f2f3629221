// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSystemClock.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <limits>

namespace {

TEST(SystemClock, ReadsTheWallClock) {
    timespec before{};
    timespec read{};
    timespec after{};
    ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &before), 0);
    ASSERT_EQ(SystemClock().GetRealTime(&read), 0);
    ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &after), 0);
    EXPECT_LE(before.tv_sec, read.tv_sec);
    EXPECT_LE(read.tv_sec, after.tv_sec);
}

// Where it did not, the clock could not be read from then on, and that ends the process.
TEST(SystemClock, CountsOnBehindTheYear2038OnEveryMachine) {
    using Seconds = decltype(timespec::tv_sec);
    EXPECT_GT(std::numeric_limits<Seconds>::max(), std::numeric_limits<std::int32_t>::max());
}

}  // namespace
