// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Samples.h"
#include "Sanitizers.h"
#include "Test.h"

namespace {

/// @return a sample for every 10 s of an hour
std::vector<Sample> Hour(double (*pResidentKib)(int second)) {
    std::vector<Sample> samples;
    for (int second = 10; second <= 3600; second += 10) {
        samples.push_back({.second = second, .residentKib = pResidentKib(second)});
    }
    return samples;
}

TEST(SoakSamplesTest, GrowthIsTheRiseThroughTheLastThreeQuarters) {
    struct {
        const char* what;
        double (*residentKib)(int second);
        double least;
        double most;
    } const courses[] = {
        {"constant memory", [](int) { return 9000.0; }, -0.001, 0.001},
        {"a leak of 1 KiB/s", [](int second) { return 9000.0 + second; }, 2680, 2700},
        {"buffers that fill in the first quarter",
         [](int second) { return 9000.0 + std::min(second, 900); }, -1, 1},
        {"a single peak", [](int second) { return second == 3000 ? 19000.0 : 9000.0; }, 0, 200}};
    for (const auto& course : courses) {
        SCOPED_TRACE(course.what);
        const double growth = Growth(Hour(course.residentKib), &Sample::residentKib);
        EXPECT_GE(growth, course.least);
        EXPECT_LE(growth, course.most);
    }
}

TEST(SoakSamplesTest, TooFewSamplesThrow) {
    EXPECT_THROW(Growth(std::vector<Sample>(7), &Sample::residentKib), std::runtime_error);
}

TEST(SoakSamplesTest, SampleCountsTheDescriptorsOfThisProcess) {
    const Sample before = Sample::Take();
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(Sample::Take().descriptors, before.descriptors + 1);
    close(fd);
    EXPECT_EQ(Sample::Take().descriptors, before.descriptors);
    EXPECT_GT(before.residentKib, 0);
}

TEST(SoakSamplesTest, SampleCountsTheMemoryThatIsNotFreed) {
    if (kWithSanitizersAllocator) {
        GTEST_SKIP() << "mallinfo2 does not see a sanitizer's allocator";
    }
    // The first sample of a process allocates buffers that stay.
    Sample::Take();
    const double before = Sample::Take().heapKib;
    const std::vector<char> held(40 * 1024);
    EXPECT_NEAR(Sample::Take().heapKib - before, 40, 1);
}

}  // namespace
