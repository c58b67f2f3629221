// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Samples.h"
#include "Sanitizers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace {

double Resident(const Sample& sample) {
    return sample.residentKib;
}

/// @return a sample for each ten seconds of an hour
std::vector<Sample> Hour(double (*pResidentKib)(int second)) {
    std::vector<Sample> samples;
    for (int second = 10; second <= 3600; second += 10) {
        Sample sample;
        sample.second = second;
        sample.residentKib = pResidentKib(second);
        samples.push_back(sample);
    }
    return samples;
}

TEST(SoakSamplesTest, SameMemoryThroughoutIsNoGrowth) {
    EXPECT_NEAR(Growth(Hour([](int) { return 9000.0; }), &Resident), 0, 0.001);
}

TEST(SoakSamplesTest, LeakOfAKibibyteInASecondIsGrowthThroughThreeQuartersOfTheHour) {
    EXPECT_NEAR(Growth(Hour([](int second) { return 9000.0 + second; }), &Resident), 2690, 10);
}

TEST(SoakSamplesTest, WhatFillsInTheFirstQuarterIsNoGrowth) {
    const auto samples = Hour([](int second) { return 9000.0 + std::min(second, 900); });
    EXPECT_NEAR(Growth(samples, &Resident), 0, 1);
}

TEST(SoakSamplesTest, SinglePeakIsHardlyGrowth) {
    const auto samples = Hour([](int second) { return second == 3000 ? 19000.0 : 9000.0; });
    EXPECT_LT(Growth(samples, &Resident), 200);
}

TEST(SoakSamplesTest, TooFewSamplesAreNoJudgement) {
    EXPECT_THROW(Growth(std::vector<Sample>(7), &Resident), std::runtime_error);
}

TEST(SoakSamplesTest, SampleCountsTheDescriptorsOfThisProcess) {
    const Sample before = Sample::Take();
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(Sample::Take().descriptors, before.descriptors + 1);
    close(fd);
    EXPECT_EQ(Sample::Take().descriptors, before.descriptors);
    EXPECT_GT(before.residentKib, 0);
}

TEST(SoakSamplesTest, SampleCountsTheMemoryThatIsNotGivenBack) {
    if (kWithSanitizersAllocator) {
        GTEST_SKIP() << "sanitizers have an allocator of their own, which is not asked";
    }
    // The first one of a process allocates what stays.
    Sample::Take();
    const double before = Sample::Take().heapKib;
    const std::vector<char> held(40 * 1024);
    EXPECT_NEAR(Sample::Take().heapKib - before, 40, 1);
}

}  // namespace
