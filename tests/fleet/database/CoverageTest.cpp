// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYCoverage.h"
#include "Test.h"

namespace {

CTYCoverage CoverageOf(const std::vector<std::pair<std::int64_t, std::int64_t>>& ranges) {
    CTYCoverage coverage;
    for (const auto& [first, last] : ranges) {
        coverage.Add(first, last);
    }
    return coverage;
}

TEST(Coverage, JoinsRangesInAnyOrder) {
    EXPECT_EQ(CoverageOf({{30, 54}, {1, 24}}).Text(), "{[1,25),[30,55)}");
    EXPECT_EQ(CoverageOf({{30, 54}, {1, 24}, {25, 29}}).Text(), "{[1,55)}");
    EXPECT_EQ(CoverageOf({{1, 10}, {5, 7}}).Text(), "{[1,11)}");
    EXPECT_EQ(CoverageOf({{5, 7}, {9, 9}, {1, 10}}).Text(), "{[1,11)}");
    EXPECT_EQ(CoverageOf({{5, 7}, {7, 12}, {2, 4}}).Text(), "{[2,13)}");
}

TEST(Coverage, HasNothingOfAnEmptyRange) {
    EXPECT_EQ(CoverageOf({{5, 4}}).Text(), "{}");
}

TEST(Coverage, TellsWhichIdsItHas) {
    const CTYCoverage coverage("{[1,25),[30,55)}");
    EXPECT_FALSE(coverage.Has(0));
    EXPECT_TRUE(coverage.Has(1));
    EXPECT_TRUE(coverage.Has(24));
    EXPECT_FALSE(coverage.Has(25));
    EXPECT_TRUE(coverage.Has(30));
    EXPECT_FALSE(coverage.Has(55));
}

TEST(Coverage, StopsTheWatermarkAtItsFirstGap) {
    EXPECT_EQ(CTYCoverage("{}").Watermark(), 0);
    EXPECT_EQ(CTYCoverage("{[2,25)}").Watermark(), 0);
    EXPECT_EQ(CTYCoverage("{[1,25),[30,55)}").Watermark(), 24);
}

TEST(Coverage, RefusesOtherTexts) {
    for (const char* pText : {"", "{", "{[1,2)", "{(1,2)}", "{[1,2]}", "{[a,2)}", "{}}"}) {
        EXPECT_THROW(CTYCoverage{pText}, std::runtime_error) << pText;
    }
}

}  // namespace
