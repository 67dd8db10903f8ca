#include <gtest/gtest.h>

#include <boost/smart_ptr/make_shared.hpp>
#include <limits>

#include "share/archive_request.h"
#include "support/archive_fixture.h"

namespace orva::archive {
namespace {

using test::realPin;
using test::realPins;
using test::timesOf;
using Times = std::vector<std::int64_t>;

constexpr std::int64_t kLatest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kSecondTicks = 10'000'000;

class ItemTest : public ::testing::Test {
 protected:
  ItemTest() : request(boost::make_shared<Request>()), item(request->addItem(7)) {}

  SharedInterval filled(const SharedInterval& interval, const std::vector<PinPtr>& pins) {
    for (const PinPtr& pin : pins) interval->push(pin);
    return interval;
  }

  const SharedRequest request;
  const SharedItem item;
};

}  // namespace

TEST_F(ItemTest, NewItemIsEmptyUnlimitedAndWaits) {
  EXPECT_EQ(item->numValuesPerNode, 0U);
  EXPECT_EQ(item->resampleInterval, 0);
  EXPECT_EQ(item->status(), 0x80320000U);
  EXPECT_EQ(item->failure(), 0U);
  EXPECT_FALSE(item->continuationPoint());
  EXPECT_FALSE(item->cut());
  EXPECT_FALSE(item->isFinal());
  EXPECT_FALSE(item->closed());
  EXPECT_TRUE(item->values().empty());
  EXPECT_FALSE(item->lastValue());
  EXPECT_TRUE(item->openIntervals().empty());
}

TEST_F(ItemTest, ValuesGoToTheEndTheFrontOrBeforeAPosition) {
  item->push_back(realPin(20, 0));
  item->push_back(realPin(40, 0));
  item->push_front(realPin(10, 0));
  item->insert(realPin(30, 0), std::prev(item->end()));
  item->insert(realPin(5, 0), item->begin());
  EXPECT_EQ(timesOf(item), (Times{5, 10, 20, 30, 40}));
  EXPECT_EQ(item->valueCount(), 5U);
  EXPECT_EQ(item->lastValue()->time, 40);
}

TEST_F(ItemTest, StretchIsAppendedInOrder) {
  item->push_back(realPin(1, 0));
  const std::vector<PinPtr> pins = realPins(2, 50);
  item->append(pins.data(), pins.size());
  ASSERT_EQ(item->valueCount(), 51U);
  EXPECT_EQ(timesOf(item).back(), 51);
  EXPECT_EQ(*std::next(item->values().begin(), 25), pins[24]);
}

TEST_F(ItemTest, ResampledStretchKeepsTheExtremesOfEachPeriod) {
  item->resampleInterval = kSecondTicks;
  PinList pins;
  int value = 0;
  for (const double v : {5., 1., 9., 4., 6.}) pins.push_back(realPin(++value, v));
  item->appendResampled(pins);
  EXPECT_EQ(timesOf(item), (Times{1, 2, 3})) << "first, minimum, maximum";
}

// ---- how much it takes

TEST_F(ItemTest, UnlimitedItemHasAllTheSpaceThereIs) {
  EXPECT_EQ(item->availableSpace(), 0xFFFFFFFFU);
  item->addInterval(0, 1, 2);
  EXPECT_EQ(item->availableSpace(), 0xFFFFFFFFU);
  EXPECT_TRUE(item->hasSpace());
}

// Deliberate: with an interval open the limit alone counts, not what the item holds already.
TEST_F(ItemTest, OpenIntervalLeavesTheWholeLimitAsSpace) {
  item->numValuesPerNode = 3;
  item->push_back(realPin(1, 0));
  item->addInterval(0, 1, 2);
  EXPECT_EQ(item->availableSpace(), 3U);
  for (int i = 0; i < 5; ++i) item->push_back(realPin(2, 0));
  EXPECT_EQ(item->availableSpace(), 3U);
}

TEST_F(ItemTest, FullItemWithoutIntervalsHasNoSpace) {
  item->numValuesPerNode = 2;
  item->push_back(realPin(1, 0));
  item->push_back(realPin(2, 0));
  EXPECT_EQ(item->availableSpace(), 0U);
  EXPECT_FALSE(item->hasSpace());
  item->push_back(realPin(3, 0));
  EXPECT_EQ(item->availableSpace(), 0U);
}

// Deliberate: the shortfall wraps around. Callers only ask whether it is 0.
TEST_F(ItemTest, ShortfallWithoutIntervalsWrapsAround) {
  item->numValuesPerNode = 10;
  EXPECT_EQ(item->availableSpace(), static_cast<std::uint32_t>(0) - 10U);
  EXPECT_TRUE(item->hasSpace());
  item->push_back(realPin(1, 0));
  EXPECT_EQ(item->availableSpace(), static_cast<std::uint32_t>(1) - 10U);
}

TEST_F(ItemTest, ResamplingIntervalUsesUpSpaceAsFarAsItHasCome) {
  item->numValuesPerNode = 10;
  item->resampleInterval = kSecondTicks;
  const SharedInterval interval = item->addInterval(0, 0, 0);
  EXPECT_EQ(item->availableSpace(), 10U);
  for (std::int64_t second = 0; second < 3; ++second) {
    interval->push(realPin(1 + second * kSecondTicks, 1));
  }
  EXPECT_EQ(item->availableSpace(), 7U);
  for (std::int64_t second = 3; second < 30; ++second) {
    interval->push(realPin(1 + second * kSecondTicks, 1));
  }
  EXPECT_EQ(item->availableSpace(), 0U);
}

TEST_F(ItemTest, SpaceOfAResamplingIntervalCountsWhatStandsBeforeIt) {
  item->numValuesPerNode = 10;
  item->resampleInterval = kSecondTicks;
  for (const PinPtr& pin : realPins(1, 4)) item->push_back(pin);
  item->addInterval(0, 5, 0);
  EXPECT_EQ(item->availableSpace(), 6U);
}

// ---- intervals

TEST_F(ItemTest, IntervalIsOpenUntilItIsFinal) {
  const SharedInterval first = item->createInterval(3, -5, 20);
  const SharedInterval second = item->addInterval(4, 0, 0);
  EXPECT_EQ(first->layer(), 3);
  EXPECT_EQ(first->start(), -5);
  EXPECT_EQ(first->end(), 20);
  EXPECT_EQ(first->cacheId(), 7);
  EXPECT_EQ(first->item(), item);
  EXPECT_EQ(item->openIntervals(), (std::vector<SharedInterval>{first, second}));
  first->finalize();
  EXPECT_EQ(item->openIntervals(), (std::vector<SharedInterval>{second}));
}

TEST_F(ItemTest, IndexIsTheNumberOfIntervalsOpenBefore) {
  const SharedInterval first = item->addInterval(0, 1, 2);
  const SharedInterval second = item->addBotInterval(0, 1, 2);
  EXPECT_EQ(first->index(), 0U);
  EXPECT_EQ(second->index(), 1U);
  first->finalize();
  const SharedInterval third = item->addTopInterval(0, 1, 2);
  EXPECT_EQ(third->index(), 1U) << "not unique";
  third->finalize();
  EXPECT_EQ(item->openIntervals(), (std::vector<SharedInterval>{second}))
      << "so the interval itself is removed, not its index";
}

TEST_F(ItemTest, NothingCompletesForNoInterval) {
  item->addInterval(0, 1, 2);
  item->intervalComplite(SharedInterval());
  EXPECT_EQ(item->openIntervals().size(), 1U);
  EXPECT_FALSE(item->isFinal());
}

TEST_F(ItemTest, IntervalOfAnotherItemCompletesNothing) {
  const SharedItem other = request->addItem(8);
  const SharedInterval strange = other->addInterval(0, 1, 2);
  item->addInterval(0, 1, 2);
  item->intervalComplite(strange);
  EXPECT_EQ(item->openIntervals().size(), 1U);
  EXPECT_FALSE(item->isFinal());
}

TEST_F(ItemTest, ItemIsFinalOnceAfterTheLastOfItsIntervalsInAnyOrder) {
  request->addItem(8);
  const SharedInterval intervals[] = {item->addInterval(0, 1, 2), item->addInterval(0, 3, 4),
                                      item->addInterval(0, 5, 6)};
  intervals[2]->finalize();
  intervals[0]->finalize();
  EXPECT_FALSE(item->isFinal());
  EXPECT_EQ(request->finalizedItems(), 0U);
  intervals[1]->finalize();
  EXPECT_TRUE(item->isFinal());
  EXPECT_EQ(request->finalizedItems(), 1U);
}

TEST_F(ItemTest, ItemDiesWithItsOpenIntervals) {
  boost::weak_ptr<Interval> interval;
  {
    auto other = boost::make_shared<Request::Item>(boost::weak_ptr<Request>(), 1);
    interval = other->addInterval(0, 1, 2);
    EXPECT_FALSE(interval.expired()) << "an item owns its open intervals";
  }
  EXPECT_TRUE(interval.expired());
}

// ---- its end

TEST_F(ItemTest, ItemBeyondItsLimitKeepsTheOldestAndSaysWhereToGoOn) {
  item->numValuesPerNode = 3;
  filled(item->addTopInterval(0, 1, 0), realPins(10, 5, 10))->finalize();
  EXPECT_EQ(timesOf(item), (Times{10, 20, 30}));
  EXPECT_EQ(item->status(), 0x00A60000U);
  EXPECT_EQ(item->continuationPoint().value_or(-1), 31);
}

TEST_F(ItemTest, ItemExactlyAtItsLimitIsComplete) {
  item->numValuesPerNode = 5;
  item->setContinuationPoint(3);
  filled(item->addTopInterval(0, 1, 0), realPins(10, 5, 10))->finalize();
  EXPECT_EQ(item->values().size(), 5U);
  EXPECT_EQ(item->status(), 0U);
  EXPECT_FALSE(item->continuationPoint());
}

TEST_F(ItemTest, UnlimitedItemIsAlwaysComplete) {
  item->setContinuationPoint(3);
  filled(item->addTopInterval(0, 1, 0), realPins(1, 5000))->finalize();
  EXPECT_EQ(item->values().size(), 5000U);
  EXPECT_EQ(item->status(), 0U);
  EXPECT_FALSE(item->continuationPoint());
}

TEST_F(ItemTest, ContinuationPointStopsAtTheLatestTime) {
  item->numValuesPerNode = 1;
  item->push_back(realPin(kLatest, 0));
  item->push_back(realPin(kLatest, 1));
  item->finalize();
  EXPECT_EQ(item->continuationPoint().value_or(-1), kLatest);
}

TEST_F(ItemTest, ItemWithoutARequestIsFinalAllTheSame) {
  const auto alone = boost::make_shared<Request::Item>(boost::weak_ptr<Request>(), 1);
  alone->finalize();
  EXPECT_TRUE(alone->isFinal());
  EXPECT_EQ(alone->status(), 0U);
}

TEST_F(ItemTest, FinalItemTakesNoMoreValuesAndStaysAsItIs) {
  const SharedInterval other = item->addInterval(0, 1, 0);
  item->push_back(realPin(1, 0));
  item->finalize();
  other->push(realPin(2, 0));
  item->fail(0x80050000);
  other->finalize();
  EXPECT_EQ(timesOf(item), (Times{1}));
  EXPECT_EQ(item->failure(), 0U);
  EXPECT_EQ(request->finalizedItems(), 1U);
}

// A reader that gave up looks at its values: nothing may move under it.
TEST_F(ItemTest, ClosedItemStaysAsItIs) {
  item->numValuesPerNode = 1;
  const SharedInterval interval = item->addInterval(0, 1, 0);
  interval->push(realPin(2, 0));
  interval->push(realPin(3, 0));
  item->close();
  EXPECT_TRUE(item->closed());
  EXPECT_TRUE(interval->full());
  interval->push(realPin(4, 0));
  interval->finalize();
  EXPECT_EQ(timesOf(item), (Times{2, 3}));
  EXPECT_EQ(item->status(), 0x80320000U);
  EXPECT_FALSE(item->isFinal());
  EXPECT_FALSE(item->continuationPoint());
}

TEST_F(ItemTest, FirstFailureStays) {
  item->fail(0x803E0000);
  item->fail(0x80050000);
  EXPECT_EQ(item->failure(), 0x803E0000U);
  item->finalize();
  EXPECT_EQ(item->failure(), 0x803E0000U);
  EXPECT_EQ(item->status(), 0U) << "the mark stands beside the status";
}

TEST_F(ItemTest, CutMarkIsKeptBesideTheStatus) {
  item->numValuesPerNode = 1;
  item->push_back(realPin(1, 0));
  item->setCut();
  item->finalize();
  EXPECT_TRUE(item->cut());
  EXPECT_EQ(item->status(), 0U);
}

// ---- first and last

TEST_F(ItemTest, EqualFirstAndLastValueAreOne) {
  item->setFirstLast();
  item->push_back(realPin(5, 1));
  item->push_back(realPin(5, 1));
  item->finalize();
  EXPECT_EQ(timesOf(item), (Times{5}));
}

TEST_F(ItemTest, EqualFirstAndLastValueAreComparedWhenTheLastIntervalEnds) {
  item->setFirstLast();
  const SharedInterval first = item->addBotInterval(0, 0, 0);
  const SharedInterval last = item->addTopInterval(0, 0, 0);
  first->setKind(Interval::Kind::oldest);
  last->setKind(Interval::Kind::newest);
  last->push(realPin(5, 1));
  last->finalize();
  first->push(realPin(5, 1));
  EXPECT_EQ(item->valueCount(), 2U);
  first->finalize();
  EXPECT_EQ(timesOf(item), (Times{5}));
}

TEST_F(ItemTest, DifferentFirstAndLastValueOfOneTimeAreBothGiven) {
  item->setFirstLast();
  item->push_back(realPin(5, 1));
  item->push_back(realPin(5, 2));
  item->finalize();
  EXPECT_EQ(item->values().size(), 2U);
}

TEST_F(ItemTest, EqualValuesOfARangeAreBothGiven) {
  item->push_back(realPin(5, 1));
  item->push_back(realPin(5, 1));
  item->finalize();
  EXPECT_EQ(item->values().size(), 2U);
}

TEST_F(ItemTest, LimitOfOneGivesTheFirstValueAndAnnouncesTheLast) {
  item->numValuesPerNode = 1;
  item->setFirstLast();
  item->push_back(realPin(5, 1));
  item->push_back(realPin(9, 1));
  item->finalize();
  EXPECT_EQ(timesOf(item), (Times{5}));
  EXPECT_EQ(item->status(), 0x00A60000U);
  EXPECT_EQ(item->continuationPoint().value_or(-1), 6);
}

TEST_F(ItemTest, EqualFirstAndLastValueAreOneAlsoForALimitOfOne) {
  item->numValuesPerNode = 1;
  item->setFirstLast();
  item->push_back(realPin(5, 1));
  item->push_back(realPin(5, 1));
  item->finalize();
  EXPECT_EQ(item->status(), 0U);
}

}  // namespace orva::archive
