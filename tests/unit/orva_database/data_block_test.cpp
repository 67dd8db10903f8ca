#include "orva_database/data_block.h"

#include <gtest/gtest.h>

#include <boost/smart_ptr/make_shared.hpp>
#include <limits>

#include "support/archive_fixture.h"

namespace orva::cache {
namespace {

using test::realPin;
using test::realPins;
using test::timesOf;
using Times = std::vector<std::int64_t>;

constexpr std::int64_t kEarliest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLatest = std::numeric_limits<std::int64_t>::max();

struct BlockOfThree : DataBlock {
  BlockOfThree() {
    for (const PinPtr& pin : realPins(10, 3, 10)) push(pin);
  }
};

Times timesIn(const DataBlock& block) {
  return timesOf(std::vector<PinPtr>(block.begin(), block.end()));
}

}  // namespace

TEST(DataBlockTest, EmptyBlockHasSpaceAndNothingToFind) {
  DataBlock block;
  EXPECT_TRUE(block.hasSpace());
  EXPECT_TRUE(block.empty());
  EXPECT_EQ(block.size(), 0U);
  EXPECT_EQ(block.index(), 0U);
  for (const bool inclusive : {false, true}) {
    EXPECT_EQ(block.left_it(5, inclusive), block.end());
    EXPECT_EQ(block.right_it(5, inclusive), block.end());
    EXPECT_FALSE(block.left_val(5, inclusive));
    EXPECT_FALSE(block.right_val(5, inclusive));
  }
}

TEST(DataBlockTest, AThousandSamplesFillABlock) {
  static_assert(DataBlock::MAX_SIZE == 1000);
  DataBlock block;
  for (std::int64_t time = 1; time <= 999; ++time) block.push(realPin(time, 0));
  EXPECT_TRUE(block.hasSpace());
  block.push(realPin(1000, 0));
  EXPECT_FALSE(block.hasSpace());
}

TEST(DataBlockTest, PushChecksNeitherOrderNorCapacity) {
  DataBlock block;
  for (int i = 0; i < 1000; ++i) block.push(realPin(5, i));
  block.push(realPin(4, 0));
  EXPECT_EQ(block.size(), 1001U);
  EXPECT_EQ(block.firstTime(), 5);
  EXPECT_EQ(block.lastTime(), 4);
}

TEST(DataBlockTest, LeftFindsTheNewestSampleBeforeATime) {
  BlockOfThree block;
  EXPECT_EQ(block.left_val(20, true)->time, 20);
  EXPECT_EQ(block.left_val(20, false)->time, 10);
  EXPECT_EQ(block.left_val(25, true)->time, 20);
  EXPECT_EQ(block.left_val(25, false)->time, 20);
  EXPECT_EQ(block.left_val(kLatest, true)->time, 30);
  EXPECT_EQ(block.left_it(30, true), block.begin() + 2);
}

TEST(DataBlockTest, LeftFallsBackToTheOldestSample) {
  BlockOfThree block;
  for (const bool inclusive : {false, true}) {
    EXPECT_EQ(block.left_val(5, inclusive)->time, 10);
    EXPECT_EQ(block.left_it(5, inclusive), block.begin());
    EXPECT_EQ(block.left_val(kEarliest, inclusive)->time, 10);
  }
  EXPECT_EQ(block.left_val(10, false)->time, 10);
}

TEST(DataBlockTest, RightFindsTheOldestSampleAfterATime) {
  BlockOfThree block;
  EXPECT_EQ(block.right_val(20, true)->time, 20);
  EXPECT_EQ(block.right_val(20, false)->time, 30);
  EXPECT_EQ(block.right_val(15, false)->time, 20);
  EXPECT_EQ(block.right_val(kEarliest, false)->time, 10);
}

TEST(DataBlockTest, RightFindsNothingAfterTheNewestSample) {
  BlockOfThree block;
  for (const bool inclusive : {false, true}) {
    EXPECT_FALSE(block.right_val(35, inclusive));
    EXPECT_EQ(block.right_it(35, inclusive), block.end());
  }
  EXPECT_FALSE(block.right_val(30, false));
  EXPECT_EQ(block.right_val(30, true)->time, 30);
}

TEST(DataBlockTest, SearchesTreatEqualTimesAsOnePlace) {
  DataBlock block;
  for (const std::int64_t time : {1, 2, 2, 2, 3}) block.push(realPin(time, 0));
  EXPECT_EQ(block.left_it(2, true), block.begin() + 3);
  EXPECT_EQ(block.left_it(2, false), block.begin());
  EXPECT_EQ(block.right_it(2, true), block.begin() + 1);
  EXPECT_EQ(block.right_it(2, false), block.begin() + 4);
}

TEST(DataBlockTest, PredicatesCompareASampleWithATime) {
  const PinPtr pin = realPin(20, 0);
  EXPECT_TRUE(left<false>(pin, 20));
  EXPECT_FALSE(left<true>(pin, 20));
  EXPECT_TRUE(right<false>(pin, 20));
  EXPECT_FALSE(right<true>(pin, 20));
  EXPECT_TRUE(left<false>(pin, 19));
  EXPECT_TRUE(left<true>(pin, 19));
  EXPECT_FALSE(right<false>(pin, 19));
  EXPECT_FALSE(left<false>(pin, 21));
  EXPECT_TRUE(right<true>(pin, 21));
}

TEST(DataBlockDeathTest, PredicatesRefuseANullSample) {
  EXPECT_DEATH(static_cast<void>(left<true>(PinPtr(), 1)), "");
  EXPECT_DEATH(static_cast<void>(left<false>(PinPtr(), 1)), "");
  EXPECT_DEATH(static_cast<void>(right<true>(PinPtr(), 1)), "");
  EXPECT_DEATH(static_cast<void>(right<false>(PinPtr(), 1)), "");
}

// Deliberate: blocks are never merged, and nothing calls it.
TEST(DataBlockTest, JoiningMovesNothing) {
  BlockOfThree block;
  DataBlock other;
  for (const PinPtr& pin : realPins(40, 2, 10)) other.push(pin);
  DataBlock full;
  for (const PinPtr& pin : realPins(1, 1000)) full.push(pin);
  DataBlock empty;
  block.join_with(other);
  block.join_with(empty);
  empty.join_with(block);
  full.join_with(other);
  EXPECT_EQ(timesIn(block), (Times{10, 20, 30}));
  EXPECT_EQ(timesIn(other), (Times{40, 50}));
  EXPECT_EQ(full.size(), 1000U);
  EXPECT_TRUE(empty.empty());
}

TEST(DataBlockTest, StretchesAreAppendedAndExchangedAsAWhole) {
  BlockOfThree block;
  const std::vector<PinPtr> more = realPins(40, 3, 10);
  block.push(more.data(), 2);
  EXPECT_EQ(timesIn(block), (Times{10, 20, 30, 40, 50}));
  std::vector<PinPtr> others = realPins(1, 2);
  block.swapSamples(others);
  EXPECT_EQ(timesIn(block), (Times{1, 2}));
  EXPECT_EQ(timesOf(others), (Times{10, 20, 30, 40, 50}));
}

TEST(DataBlockTest, DestroyedBlockReleasesItsSamples) {
  const PinPtr pin = realPin(1, 0);
  {
    DataBlock block;
    block.push(pin);
    EXPECT_EQ(pin->use_count(), 2U);
  }
  EXPECT_EQ(pin->use_count(), 1U);
}

}  // namespace orva::cache
