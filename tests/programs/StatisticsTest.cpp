// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Statistics.h"

#include "TableTest.h"

#include <numeric>

namespace {

// Four decimals, as R. G. Newcombe printed them: Two-sided confidence intervals for the single
// proportion, Statistics in Medicine 17 (1998). None and all of one and ten by hand: the other
// bound is n / (n + 1.96 squared) or its complement.
struct Interval {
    TYShare share;
    double low;
    double high;
};
constexpr Named<Interval> kIntervals[] = {
    {"Many", {{81, 263}, 0.2553, 0.3662}}, {"Few", {{15, 148}, 0.0624, 0.1605}},
    {"One", {{1, 29}, 0.0061, 0.1718}},    {"None", {{0, 20}, 0, 0.1611}},
    {"NoneOfTen", {{0, 10}, 0, 0.2775}},   {"AllOfTen", {{10, 10}, 0.7225, 1}},
    {"TheOnlyOne", {{1, 1}, 0.2065, 1}},   {"NotTheOnlyOne", {{0, 1}, 0, 0.7935}},
    {"Half", {{5, 10}, 0.2366, 0.7634}},
};

class Wilson : public CTableTest<testing::Test, Interval> {};

TEST_P(Wilson, IntervalIsThatOfTheLiterature) {
    const auto interval = Case().share.Interval();
    ASSERT_TRUE(interval);
    EXPECT_NEAR(interval->low, Case().low, 0.00005);
    EXPECT_NEAR(interval->high, Case().high, 0.00005);
}

INSTANTIATE_TEST_SUITE_P(Table, Wilson, testing::ValuesIn(kIntervals), kByName);

TEST(Share, HasExactBoundsForNoneAndAll) {
    for (std::int64_t n = 1; n <= 1000; ++n) {
        EXPECT_EQ((TYShare{0, n}.Interval()->low), 0);
        EXPECT_EQ((TYShare{n, n}.Interval()->high), 1);
    }
}

TEST(Share, OfNothingHasNeitherRateNorInterval) {
    EXPECT_FALSE(TYShare().Rate());
    EXPECT_FALSE(TYShare().Interval());
}

TEST(Share, HasARate) {
    EXPECT_EQ((TYShare{1, 4}.Rate()), 0.25);
    EXPECT_EQ((TYShare{0, 4}.Rate()), 0);
}

TEST(Percentiles, OfNothingAreEmpty) {
    EXPECT_EQ(PercentilesOf({}), TYPercentiles());
}

TEST(Percentiles, AreValuesOfTheSetInAnyOrder) {
    EXPECT_EQ(PercentilesOf({7}), (TYPercentiles{1, 7, 7, 7}));
    EXPECT_EQ(PercentilesOf({9, 1}), (TYPercentiles{2, 1, 9, 9}));
    EXPECT_EQ(PercentilesOf({40, 15, 50, 20, 35}), (TYPercentiles{5, 35, 50, 50}));
}

// With 1 to n as values, a percentile is its own rank.
TEST(Percentiles, TakeTheNearestRankUpwards) {
    const auto upTo = [](std::int64_t n) {
        std::vector<std::int64_t> values(static_cast<std::size_t>(n));
        std::iota(values.begin(), values.end(), 1);
        return PercentilesOf(values);
    };
    EXPECT_EQ(upTo(20), (TYPercentiles{20, 10, 19, 20}));
    EXPECT_EQ(upTo(100), (TYPercentiles{100, 50, 95, 99}));
    EXPECT_EQ(upTo(101), (TYPercentiles{101, 51, 96, 100}));
    EXPECT_EQ(upTo(1000), (TYPercentiles{1000, 500, 950, 990}));
}

}  // namespace
