// RangesAdapter and the rules of RangeFilter.

#include "orn_ranges.h"

#include <gtest/gtest.h>

namespace ORN_3_30 {
namespace {

TEST(RangesAdapterTest, ANullVectorIsAnEmptyList) {
    RangesAdapter ranges(nullptr);
    unsigned long long begin = 1;
    unsigned long long size = 2;
    EXPECT_EQ(ranges.getCount(), 0u);
    EXPECT_FALSE(ranges.getRange(0, begin, size));
    EXPECT_EQ(begin, 1u);
    EXPECT_EQ(size, 2u);
}

TEST(RangesAdapterTest, PairsOfBeginAndEndAreGivenAsBeginAndSize) {
    const RangesAdapter::Vector pairs = {{10, 20}, {0x100, 0x180}};
    RangesAdapter ranges(&pairs);
    unsigned long long begin = 0;
    unsigned long long size = 0;
    EXPECT_EQ(ranges.getCount(), 2u);
    EXPECT_TRUE(ranges.getRange(1, begin, size));
    EXPECT_EQ(begin, 0x100u);
    EXPECT_EQ(size, 0x80u);
}

TEST(RangesAdapterTest, AnIndexAtTheCountLeavesTheOutputsAlone) {
    const RangesAdapter::Vector pairs = {{10, 20}};
    RangesAdapter ranges(&pairs);
    unsigned long long begin = 1;
    unsigned long long size = 2;
    EXPECT_FALSE(ranges.getRange(1, begin, size));
    EXPECT_EQ(begin, 1u);
    EXPECT_EQ(size, 2u);
}

class RangeFilterTest : public ::testing::Test {
protected:
    /// Whether the one address is inside.
    bool holds(unsigned long long address) const { return filter.overlaps(address, address + 1); }

    RangeFilter filter;
};

TEST_F(RangeFilterTest, AnEmptyFilterOverlapsNothing) {
    EXPECT_FALSE(filter.overlaps(0, ~0ULL));
}

TEST_F(RangeFilterTest, AddingAlwaysGivesOne) {
    EXPECT_EQ(filter.add(10, 20), 1);
    EXPECT_EQ(filter.add(5, 15), 1);
    EXPECT_EQ(filter.add(3, 20), 1);
    EXPECT_EQ(filter.add(30, 40), 1);
}

TEST_F(RangeFilterTest, IntervalsAreHalfOpen) {
    filter.add(10, 20);
    EXPECT_FALSE(filter.overlaps(0, 10));
    EXPECT_TRUE(filter.overlaps(0, 11));
    EXPECT_TRUE(filter.overlaps(19, 30));
    EXPECT_FALSE(filter.overlaps(20, 30));
}

TEST_F(RangeFilterTest, IntervalsThatReachOnStandSideBySide) {
    filter.add(10, 20);
    filter.add(15, 30);
    for (unsigned long long address = 10; address < 30; ++address)
        EXPECT_TRUE(holds(address)) << address;
    EXPECT_FALSE(holds(9));
    EXPECT_FALSE(holds(30));
}

TEST_F(RangeFilterTest, AnIntervalThatEndsInsideAnotherLowersItsBeginning) {
    filter.add(10, 20);
    filter.add(5, 15);
    EXPECT_TRUE(filter.overlaps(19, 20));
    EXPECT_TRUE(filter.overlaps(5, 6));
    EXPECT_FALSE(filter.overlaps(4, 5));
}

TEST_F(RangeFilterTest, AnIntervalInsideAnotherChangesNothing) {
    filter.add(10, 20);
    filter.add(12, 15);
    EXPECT_FALSE(holds(9));
    EXPECT_TRUE(holds(10));
    EXPECT_TRUE(holds(19));
}

TEST_F(RangeFilterTest, AnIntervalThatTouchesTheNextOneIsJoinedToIt) {
    filter.add(20, 30);
    filter.add(10, 20);
    EXPECT_TRUE(filter.overlaps(10, 11));
    // One interval and not two: the first one that ends above 5 is the whole.
    EXPECT_TRUE(filter.overlaps(5, 11));
    EXPECT_FALSE(filter.overlaps(5, 10));
}

TEST_F(RangeFilterTest, LoweringLeavesTheIntervalsInFrontAsTheyAre) {
    filter.add(10, 12);
    filter.add(20, 30);
    filter.add(5, 25);
    // (10, 12) still stands and is the first that ends above 5; that it begins at 10 decides.
    EXPECT_FALSE(filter.overlaps(5, 6));
    EXPECT_TRUE(filter.overlaps(12, 13));
}

TEST_F(RangeFilterTest, TheSameEndSwallowsWhatTheGrowingIntervalReaches) {
    filter.add(2, 4);
    filter.add(6, 12);
    filter.add(11, 20);
    filter.add(10, 20);
    // (6, 12) ends above 10 and is swallowed, so the whole begins at 6; (2, 4) does not reach it.
    EXPECT_TRUE(filter.overlaps(6, 7));
    EXPECT_FALSE(filter.overlaps(4, 6));
    EXPECT_TRUE(filter.overlaps(2, 3));
    filter.add(6, 20);
    EXPECT_TRUE(holds(19));
}

TEST_F(RangeFilterTest, SwallowingGoesOnFromTheLoweredBeginning) {
    filter.add(0, 6);
    filter.add(5, 12);
    filter.add(11, 20);
    filter.add(11, 20);
    // (5, 12) ends above 11 and lowers the beginning to 5, above which (0, 6) ends.
    EXPECT_TRUE(filter.overlaps(0, 1));
    filter.add(30, 40);
    EXPECT_TRUE(holds(0));
    EXPECT_FALSE(holds(20));
}

TEST_F(RangeFilterTest, SwallowingStopsAtAnIntervalThatOnlyTouches) {
    filter.add(0, 10);
    filter.add(12, 20);
    filter.add(10, 20);
    EXPECT_TRUE(holds(0));
    EXPECT_TRUE(holds(10));
    // Two intervals: a later one that ends inside the second lowers that one alone.
    filter.add(10, 15);
    EXPECT_TRUE(holds(9));
}

TEST_F(RangeFilterTest, ALargerIntervalWithTheSameEndTakesTheSmallerBeginning) {
    filter.add(10, 20);
    filter.add(12, 20);
    EXPECT_TRUE(holds(10));
    EXPECT_FALSE(holds(9));
    filter.add(8, 20);
    EXPECT_TRUE(holds(8));
}

TEST_F(RangeFilterTest, ALookUpTakesTheFirstIntervalThatEndsAboveTheLowAddress) {
    filter.add(20, 30);
    filter.add(40, 50);
    EXPECT_TRUE(filter.overlaps(0, 21));
    EXPECT_FALSE(filter.overlaps(30, 40));
    EXPECT_TRUE(filter.overlaps(30, 41));
    EXPECT_FALSE(filter.overlaps(50, 60));
}

} // namespace
} // namespace ORN_3_30
