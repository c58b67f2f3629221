// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSystemClock.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <limits>

namespace {

// A narrower clock would fail from the year 2038 on, and that ends the process.
static_assert(std::numeric_limits<decltype(timespec::tv_sec)>::max() >
              std::numeric_limits<std::int32_t>::max());

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

}  // namespace
