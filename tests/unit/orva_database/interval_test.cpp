#include <gtest/gtest.h>

#include <algorithm>
#include <boost/smart_ptr/make_shared.hpp>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>

#include "share/archive_request.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"

namespace orva::archive {
namespace {

using test::realPin;
using test::realPins;
using test::timesOf;
using test::TraceCapture;
using Kind = Interval::Kind;
using Times = std::vector<std::int64_t>;

constexpr std::int64_t kSecondTicks = 10'000'000;
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

struct TimedValue {
  std::int64_t time;
  double value;
  bool operator==(const TimedValue& o) const {
    return time == o.time && (value == o.value || (std::isnan(value) && std::isnan(o.value)));
  }
};
using Values = std::vector<TimedValue>;

std::ostream& operator<<(std::ostream& out, const TimedValue& v) {
  return out << v.time << ":" << v.value;
}

class IntervalTest : public ::testing::Test {
 protected:
  IntervalTest() : request(boost::make_shared<Request>()), item(request->addItem(7)) {}

  Values values() const {
    Values all;
    for (const PinPtr& pin : item->values())
      all.push_back({pin->time, pin->value.Get().Value.Double});
    return all;
  }
  void hold(std::int64_t time, double value) { item->push_back(realPin(time, value)); }

  const SharedRequest request;
  const SharedItem item;
};

void push(const SharedInterval& interval, const Values& values) {
  for (const TimedValue& v : values) interval->push(realPin(v.time, v.value));
}

void pushTimes(const SharedInterval& interval, const Times& times) {
  for (const std::int64_t time : times) interval->push(realPin(time, 1));
}

}  // namespace

// ---- what is asked

TEST_F(IntervalTest, NewIntervalAsksForARangeWithoutBounds) {
  const SharedInterval interval = item->addInterval(2, 10, 20);
  EXPECT_EQ(interval->kind(), Kind::range);
  EXPECT_FALSE(interval->bounds().left);
  EXPECT_FALSE(interval->bounds().right);
  EXPECT_EQ(interval->handle(), 0U);
  interval->setHandle(0xFFFFFFFF);
  EXPECT_EQ(interval->handle(), 0xFFFFFFFFU);
  EXPECT_EQ(item->addBotInterval(2, 0, 9)->kind(), Kind::range);
  EXPECT_EQ(item->addTopInterval(2, 21, 0)->kind(), Kind::range);
}

TEST_F(IntervalTest, OpenStartTakesSamplesOfAnyAge) {
  const SharedInterval open = item->addInterval(0, 0, 20);
  push(open, {{-5, 1}, {3, 2}});
  open->finalize();
  EXPECT_EQ(values(), (Values{{-5, 1}, {3, 2}}));
}

TEST_F(IntervalTest, RangeWantsOneValueMoreThanTheLimit) {
  const SharedInterval interval = item->addInterval(0, 1, 0);
  EXPECT_EQ(interval->wanted(), 0U) << "all";
  item->numValuesPerNode = 10;
  EXPECT_EQ(interval->wanted(), 11U);
  item->numValuesPerNode = 0xFFFFFFFF;
  EXPECT_EQ(interval->wanted(), 0x100000000U);
}

TEST_F(IntervalTest, ResampledRangeWantsAllValues) {
  item->numValuesPerNode = 10;
  const SharedInterval interval = item->addInterval(0, 1, 0);
  item->resampleInterval = 1'000'000;
  EXPECT_EQ(interval->wanted(), 11U) << "a tenth of a second is not resampled yet";
  item->resampleInterval = 1'000'001;
  EXPECT_EQ(interval->wanted(), 0U);
}

TEST_F(IntervalTest, OneValueKindsWantOne) {
  const SharedInterval interval = item->addInterval(0, 1, 0);
  interval->setKind(Kind::oldest);
  EXPECT_EQ(interval->wanted(), 1U);
  interval->setKind(Kind::newest);
  item->resampleInterval = kSecondTicks;
  item->numValuesPerNode = 10;
  EXPECT_EQ(interval->wanted(), 1U);
}

TEST_F(IntervalTest, RawRangeIsNeverFullWhileItsItemTakesValues) {
  item->numValuesPerNode = 2;
  const SharedInterval interval = item->addInterval(0, 1, 0);
  pushTimes(interval, {1, 2, 3, 4, 5});
  EXPECT_FALSE(interval->full());
  interval->finalize();
  EXPECT_TRUE(interval->full());
}

// A grid of 0.2 s over a year: nothing beyond the limit needs to be read.
TEST_F(IntervalTest, ResampledRangeIsFullBeyondTheLimit) {
  item->numValuesPerNode = 3;
  item->resampleInterval = 2'000'000;
  const SharedInterval interval = item->addInterval(0, 1, 0);
  pushTimes(interval, {2'000'000, 4'000'000, 6'000'000});
  EXPECT_FALSE(interval->full());
  EXPECT_FALSE(interval->hadEnough());
  pushTimes(interval, {8'000'000});
  EXPECT_TRUE(interval->full());
  interval->finalize();
  EXPECT_TRUE(interval->hadEnough());
  EXPECT_EQ(item->status(), 0x00A60000U);
}

TEST_F(IntervalTest, UnlimitedResampledRangeIsNeverFull) {
  item->resampleInterval = 2'000'000;
  const SharedInterval interval = item->addInterval(0, 1, 0);
  for (std::int64_t i = 1; i < 5000; ++i) interval->push(realPin(i * 2'000'000, 0));
  EXPECT_FALSE(interval->full());
}

TEST_F(IntervalTest, IntervalOfAClosedOrForgottenItemIsFull) {
  const SharedInterval interval = item->addInterval(0, 1, 0);
  item->close();
  EXPECT_TRUE(interval->full());
  auto other = boost::make_shared<Request::Item>(boost::weak_ptr<Request>(), 1);
  const SharedInterval orphan = other->addInterval(0, 1, 0);
  other.reset();
  EXPECT_TRUE(orphan->full());
  EXPECT_EQ(orphan->wanted(), 0U);
}

// ---- space

TEST_F(IntervalTest, IntervalWithoutALimitHasAllTheSpace) {
  EXPECT_EQ(item->addInterval(0, 1, 0)->availableSpace(), 0x7FFFFFFFU);
}

// Deliberate: a push shortens both what is left and what is compared with it.
TEST_F(IntervalTest, PushUsesUpTwoOfALimit) {
  const SharedInterval interval = item->addInterval(0, 1, 0);
  interval->setLimit(5);
  EXPECT_EQ(interval->availableSpace(), 5U);
  pushTimes(interval, {1});
  EXPECT_EQ(interval->availableSpace(), 3U);
  pushTimes(interval, {2});
  EXPECT_EQ(interval->availableSpace(), 1U);
  for (const std::int64_t time : {3, 4, 5, 6, 7, 8}) pushTimes(interval, {time});
  EXPECT_EQ(interval->availableSpace(), 0U) << "it stops at none";
  EXPECT_EQ(item->valueCount(), 8U) << "a limit refuses nothing";
}

TEST_F(IntervalTest, LimitOfAResampledRangeCountsWhatTheResamplerGave) {
  item->resampleInterval = kSecondTicks;
  const SharedInterval interval = item->addInterval(0, 1, 0);
  interval->setLimit(5);
  pushTimes(interval, {1, 2, 3});
  EXPECT_EQ(interval->availableSpace(), 4U);
}

// ---- where values go

TEST_F(IntervalTest, BottomIntervalPutsEachValueToTheFront) {
  hold(50, 0);
  const SharedInterval interval = item->addBotInterval(0, 1, 49);
  pushTimes(interval, {30, 20, 10});
  EXPECT_EQ(timesOf(item), (Times{10, 20, 30, 50}));
}

TEST_F(IntervalTest, TopIntervalPutsEachValueToTheEnd) {
  hold(50, 0);
  const SharedInterval interval = item->addTopInterval(0, 51, 0);
  pushTimes(interval, {60, 70});
  EXPECT_EQ(timesOf(item), (Times{50, 60, 70}));
}

TEST_F(IntervalTest, RangeValuesGoToTheirPlaceInTime) {
  hold(10, 0);
  const SharedInterval gap = item->addInterval(0, 10, 40);
  hold(40, 0);
  hold(50, 0);
  pushTimes(gap, {20, 30});
  EXPECT_EQ(timesOf(item), (Times{10, 20, 30, 40, 50}));
}

TEST_F(IntervalTest, ValuesPushedOutOfOrderGoToTheirPlaceToo) {
  const SharedInterval interval = item->addInterval(0, 1, 0);
  pushTimes(interval, {30, 10, 20, 5});
  EXPECT_EQ(timesOf(item), (Times{5, 10, 20, 30}));
}

TEST_F(IntervalTest, ValuesOutsideTheStretchAreIgnored) {
  const SharedInterval interval = item->addInterval(0, 10, 20);
  pushTimes(interval, {9, 10, 20, 21});
  EXPECT_EQ(timesOf(item), (Times{10, 20}));
  const SharedInterval open = item->addInterval(0, 100, 0);
  pushTimes(open, {99, 1000});
  EXPECT_EQ(timesOf(item), (Times{10, 20, 1000}));
}

TEST_F(IntervalTest, BoundsThatAreAskedForPassOnce) {
  const SharedInterval interval = item->addInterval(0, 10, 20);
  interval->setBounds({true, true});
  pushTimes(interval, {8, 9, 10, 20, 21, 22});
  EXPECT_EQ(timesOf(item), (Times{8, 10, 20, 21}));
}

TEST_F(IntervalTest, BoundOfAResampledRangeIsGivenAsItIs) {
  item->resampleInterval = kSecondTicks;
  const SharedInterval interval = item->addInterval(0, 10, 20);
  interval->setBounds({true, true});
  push(interval, {{9, 0}, {11, 5}, {12, 6}, {13, 3}, {21, 100}});
  interval->finalize();
  EXPECT_EQ(values(), (Values{{9, 0}, {11, 5}, {12, 6}, {13, 3}, {21, 100}}))
      << "the bounds are no extremes of the range's periods";
}

TEST_F(IntervalTest, NullValuesAreIgnored) {
  const SharedInterval interval = item->addInterval(0, 1, 0);
  interval->push(PinPtr());
  const std::vector<PinPtr> some{realPin(1, 0), PinPtr(), realPin(2, 0)};
  interval->push(some.data(), some.size());
  interval->push(some.data(), 0);
  EXPECT_EQ(timesOf(item), (Times{1, 2}));
  EXPECT_EQ(interval->pushed(), 2U);
}

TEST_F(IntervalTest, BufferHoldsWhatWasPushed) {
  const SharedInterval interval = item->addInterval(0, 10, 20);
  pushTimes(interval, {5, 10, 15, 25});
  interval->finalize();
  EXPECT_EQ(timesOf(interval->buffer()), (Times{5, 10, 15, 25}));
  EXPECT_EQ(interval->pushed(), 4U);
}

// ---- equal times

TEST_F(IntervalTest, EqualTimesStayInTheirOrderOfArrival) {
  const SharedInterval interval = item->addInterval(0, 1, 0);
  push(interval, {{5, 3}, {5, 1}, {5, 2}, {6, 9}});
  EXPECT_EQ(values(), (Values{{5, 3}, {5, 1}, {5, 2}, {6, 9}}));
}

TEST_F(IntervalTest, ValueAtAnEdgeThatTheCacheGaveIsNotGivenAgain) {
  hold(10, 1);
  const SharedInterval gap = item->addInterval(0, 10, 20);
  hold(20, 2);
  push(gap, {{10, 1}, {15, 5}, {20, 2}});
  EXPECT_EQ(values(), (Values{{10, 1}, {15, 5}, {20, 2}}));
}

TEST_F(IntervalTest, OtherValueOfAnEdgeTimeIsOrdinaryData) {
  hold(10, 1);
  const SharedInterval gap = item->addInterval(0, 10, 20);
  hold(20, 2);
  push(gap, {{10, 1}, {10, 7}, {20, 8}, {20, 2}});
  EXPECT_EQ(values(), (Values{{10, 1}, {10, 7}, {20, 8}, {20, 2}}));
}

TEST_F(IntervalTest, EqualValuesAtAnEdgeAreMetOneForOne) {
  hold(10, 1);
  const SharedInterval gap = item->addInterval(0, 10, 20);
  push(gap, {{10, 1}, {10, 1}, {10, 1}});
  EXPECT_EQ(values(), (Values{{10, 1}, {10, 1}, {10, 1}}));
}

TEST_F(IntervalTest, QualityIsNotCompared) {
  hold(10, 1);
  const SharedInterval gap = item->addInterval(0, 10, 20);
  const PinPtr pin = realPin(10, 1);
  pin->quality = 0x80000000U;
  gap->push(pin);
  EXPECT_EQ(item->valueCount(), 1U);
}

TEST_F(IntervalTest, TwoNansAreEqual) {
  hold(10, kNan);
  const SharedInterval gap = item->addInterval(0, 10, 20);
  push(gap, {{10, kNan}});
  EXPECT_EQ(item->valueCount(), 1U);
}

TEST_F(IntervalTest, ValueOfAnotherTypeIsAnotherValue) {
  OpcUa_VariantHlp whole;
  whole.SetInt(1);
  item->push_back(makePin(10, std::move(whole)));
  const SharedInterval gap = item->addInterval(0, 10, 20);
  push(gap, {{10, 1}});
  EXPECT_EQ(item->valueCount(), 2U);
}

TEST_F(IntervalTest, BetweenTheEdgesEqualSamplesAreAllKept) {
  const SharedInterval gap = item->addInterval(0, 10, 20);
  push(gap, {{15, 1}, {15, 1}});
  EXPECT_EQ(item->valueCount(), 2U);
}

// x and a at time 2, only a cached, range 1 to 4: both gaps bring x.
TEST_F(IntervalTest, SampleThatTwoGapsBringIsThereOnce) {
  for (const bool leftFirst : {false, true}) {
    const SharedItem cached = request->addItem(1);
    const SharedInterval left = cached->addInterval(0, 1, 2);
    cached->push_back(realPin(2, 10));  // a
    const SharedInterval right = cached->addInterval(0, 2, 4);
    const auto fillLeft = [&] { push(left, {{1, 0}, {2, 5}, {2, 10}}); };
    const auto fillRight = [&] { push(right, {{2, 5}, {2, 10}, {3, 1}}); };
    if (leftFirst) fillLeft();
    fillRight();
    if (!leftFirst) fillLeft();
    EXPECT_EQ(timesOf(cached), (Times{1, 2, 2, 3})) << leftFirst;
    const PinPtr second = *std::next(cached->values().begin(), 1);
    EXPECT_EQ(second->value.Get().Value.Double, 5) << leftFirst;
  }
}

// Three gaps around two cached stretches, with more samples of each edge time than the cache has.
TEST_F(IntervalTest, ThreeGapsGiveTheSameListInWhateverOrderTheyAreAnswered) {
  const Values all{{1, 1}, {2, 2}, {2, 3},  {2, 4},  {3, 5},  {4, 6},  {4, 7},
                   {4, 8}, {5, 9}, {6, 10}, {6, 11}, {7, 12}, {8, 13}, {8, 14}};
  std::vector<int> order{0, 1, 2};
  do {
    const SharedItem cached = request->addItem(1);
    std::vector<SharedInterval> gaps;
    gaps.push_back(cached->addInterval(0, 1, 2));
    for (const TimedValue& v : {all[3], all[4], all[5]}) {  // 2, 3, 4: parts of 2 and 4
      cached->push_back(realPin(v.time, v.value));
    }
    gaps.push_back(cached->addInterval(0, 4, 6));
    cached->push_back(realPin(6, 11));
    cached->push_back(realPin(7, 12));
    gaps.push_back(cached->addInterval(0, 7, 8));
    for (const int number : order) {
      const SharedInterval& gap = gaps[static_cast<std::size_t>(number)];
      for (const TimedValue& v : all) {
        if (v.time >= gap->start() && v.time <= gap->end()) gap->push(realPin(v.time, v.value));
      }
    }
    Values got;
    for (const PinPtr& pin : cached->values()) {
      got.push_back({pin->time, pin->value.Get().Value.Double});
    }
    EXPECT_EQ(got, all) << order[0] << order[1] << order[2];
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(IntervalTest, GapsAnsweredInTurnsGiveTheSameList) {
  const SharedInterval left = item->addInterval(0, 1, 3);
  const SharedInterval right = item->addInterval(0, 3, 5);
  push(right, {{3, 1}});
  push(left, {{1, 0}, {3, 1}});
  push(right, {{3, 2}});
  push(left, {{3, 2}});
  push(right, {{4, 3}});
  EXPECT_EQ(values(), (Values{{1, 0}, {3, 1}, {3, 2}, {4, 3}}));
}

TEST_F(IntervalTest, TwoIntervalsOfOneItemAreFilledFromTwoThreads) {
  constexpr std::int64_t kEach = 5000;
  const SharedInterval left = item->addInterval(0, 1, kEach);
  const SharedInterval right = item->addInterval(0, kEach + 1, 2 * kEach);
  std::thread other([&] {
    for (std::int64_t time = 1; time <= kEach; ++time) left->push(realPin(time, 0));
    left->finalize();
  });
  for (std::int64_t time = kEach + 1; time <= 2 * kEach; ++time) right->push(realPin(time, 0));
  right->finalize();
  other.join();
  const Times times = timesOf(item);
  ASSERT_EQ(times.size(), static_cast<std::size_t>(2 * kEach));
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
  EXPECT_EQ(request->finalizedItems(), 1U);
}

// ---- one value

TEST_F(IntervalTest, OldestKindKeepsTheOldestValueAndOfEqualTimesTheFirst) {
  const SharedInterval interval = item->addBotInterval(0, 10, 90);
  interval->setKind(Kind::oldest);
  push(interval, {{20, 1}, {20, 2}, {30, 3}, {15, 4}, {15, 5}, {5, 6}});
  EXPECT_EQ(values(), (Values{{15, 4}}));
  EXPECT_EQ(timesOf(interval->buffer()), (Times{15}));
}

TEST_F(IntervalTest, NewestKindKeepsTheNewestValueAndOfEqualTimesTheLast) {
  const SharedInterval interval = item->addTopInterval(0, 10, 90);
  interval->setKind(Kind::newest);
  push(interval, {{20, 1}, {30, 2}, {30, 3}, {25, 4}, {95, 5}});
  EXPECT_EQ(values(), (Values{{30, 3}}));
  EXPECT_EQ(timesOf(interval->buffer()), (Times{30}));
}

TEST_F(IntervalTest, OneValueReplacesTheOneBeforeInItsPlace) {
  hold(50, 0);
  const SharedInterval bottom = item->addBotInterval(0, 0, 49);
  bottom->setKind(Kind::newest);
  const SharedInterval top = item->addTopInterval(0, 51, 0);
  top->setKind(Kind::oldest);
  push(bottom, {{10, 1}, {20, 2}});
  push(top, {{80, 3}, {70, 4}});
  EXPECT_EQ(values(), (Values{{20, 2}, {50, 0}, {70, 4}}));
}

TEST_F(IntervalTest, OneValueKindsAreNotResampled) {
  item->resampleInterval = kSecondTicks;
  const SharedInterval interval = item->addTopInterval(0, 1, 0);
  interval->setKind(Kind::newest);
  push(interval, {{1, 5}, {2, 6}});
  interval->finalize();
  EXPECT_EQ(values(), (Values{{2, 6}}));
}

// ---- resampling

TEST_F(IntervalTest, ResampledRangeGivesFirstMinimumAndMaximumOfEachPeriod) {
  item->resampleInterval = kSecondTicks;
  const SharedInterval interval = item->addInterval(0, 0, 0);
  push(interval, {{1, 5}, {2, 9}, {3, 4}, {4, 6}, {kSecondTicks + 1, 7}, {kSecondTicks + 2, 7}});
  interval->finalize();
  EXPECT_EQ(values(), (Values{{1, 5}, {2, 9}, {3, 4}, {kSecondTicks + 1, 7}}));
  EXPECT_EQ(interval->buffer().size(), 6U) << "the cache gets what was pushed";
}

TEST_F(IntervalTest, FinalizeGivesWhatTheLastPeriodHasSelected) {
  item->resampleInterval = kSecondTicks;
  const SharedInterval interval = item->addInterval(0, 0, 0);
  push(interval, {{1, 5}, {2, 9}});
  EXPECT_EQ(item->valueCount(), 1U);
  interval->finalize();
  EXPECT_EQ(values(), (Values{{1, 5}, {2, 9}}));
}

// ---- its end

TEST_F(IntervalTest, ListenersRunInTheirOrderAfterTheItemHasTakenItsEnd) {
  const SharedInterval interval = item->addInterval(0, 1, 2);
  std::string heard;
  interval->addListner([&](const SharedInterval& done) {
    EXPECT_EQ(done, interval);
    EXPECT_TRUE(item->isFinal()) << "the first listener is the item itself";
    heard += "a";
  });
  interval->addListner([&](const SharedInterval&) { heard += "b"; });
  interval->finalize();
  EXPECT_EQ(heard, "ab");
}

TEST_F(IntervalTest, ListenersAreLetGoOfOnceTheyRan) {
  const auto held = boost::make_shared<int>(0);
  const SharedInterval interval = item->addInterval(0, 1, 2);
  interval->addListner([held](const SharedInterval&) {});
  interval->finalize();
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(IntervalTest, ListenerThatThrowsIsTracedAndTheOthersRun) {
  TraceCapture traces;
  const SharedInterval interval = item->addInterval(0, 1, 2);
  int heard = 0;
  interval->addListner([](const SharedInterval&) { throw std::runtime_error("full"); });
  interval->addListner([](const SharedInterval&) { throw 5; });
  interval->addListner([&](const SharedInterval&) { ++heard; });
  EXPECT_NO_THROW(interval->finalize());
  EXPECT_EQ(heard, 1);
  EXPECT_EQ(traces.countContaining("full"), 1);
  EXPECT_EQ(traces.lines().size(), 2U);
}

TEST_F(IntervalTest, ListenerMayReadAndPushElsewhere) {
  const SharedInterval interval = item->addInterval(0, 1, 2);
  const SharedItem other = request->addItem(8);
  const SharedInterval next = other->addInterval(0, 1, 2);
  interval->addListner([&](const SharedInterval&) {
    EXPECT_EQ(item->status(), 0U);
    next->finalize();
  });
  interval->finalize();
  EXPECT_TRUE(request->complete());
}

TEST_F(IntervalTest, SecondEndIsIgnoredAndTracedOnce) {
  TraceCapture traces;
  const SharedInterval interval = item->addInterval(3, 1, 2);
  int heard = 0;
  interval->addListner([&](const SharedInterval&) { ++heard; });
  interval->finalize();
  interval->finalize();
  interval->finalize();
  EXPECT_EQ(heard, 1);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_NE(traces.texts()[0].find("cache_id = 7, layer = 3"), std::string::npos);
}

TEST_F(IntervalTest, LatePushIsIgnoredAndTracedOnce) {
  TraceCapture traces;
  const SharedInterval interval = item->addInterval(0, 1, 9);
  item->addInterval(0, 1, 9);  // keeps the item open
  pushTimes(interval, {1});
  interval->finalize();
  pushTimes(interval, {2, 3});
  interval->fail(0x80050000);
  EXPECT_EQ(timesOf(item), (Times{1}));
  EXPECT_EQ(interval->buffer().size(), 1U);
  EXPECT_EQ(interval->pushed(), 1U);
  EXPECT_EQ(item->failure(), 0U);
  EXPECT_EQ(traces.lines().size(), 1U);
}

TEST_F(IntervalTest, ManyThreadsThatEndAnIntervalEndItOnce) {
  TraceCapture traces;
  for (int round = 0; round < 500; ++round) {
    const auto other = boost::make_shared<Request::Item>(request, 1);
    const SharedInterval interval = other->addInterval(0, 1, 2);
    std::atomic<int> heard{0};
    interval->addListner([&](const SharedInterval&) { ++heard; });
    std::thread thread([&] { interval->finalize(); });
    interval->finalize();
    thread.join();
    EXPECT_EQ(heard.load(), 1);
  }
}

TEST_F(IntervalTest, FailureIsMarkedAtTheItemAndTheInterval) {
  const SharedInterval interval = item->addInterval(0, 1, 9);
  EXPECT_FALSE(interval->failed());
  pushTimes(interval, {1});
  interval->fail(0x80050000);
  interval->finalize();
  EXPECT_TRUE(interval->failed());
  EXPECT_EQ(item->failure(), 0x80050000U);
  EXPECT_EQ(item->status(), 0U);
  EXPECT_EQ(timesOf(item), (Times{1})) << "what arrived stays";
}

TEST_F(IntervalTest, PushIntoARequestThatIsGoneIsIgnored) {
  SharedInterval interval;
  {
    const auto other = boost::make_shared<Request>();
    interval = other->addItem(1)->addInterval(0, 1, 9);
    pushTimes(interval, {1});
  }
  pushTimes(interval, {2});
  EXPECT_EQ(interval->buffer().size(), 1U);
  EXPECT_EQ(interval->availableSpace(), 0x7FFFFFFFU) << "nobody set a limit";
  interval->fail(0x80050000);
  interval->finalize();
  EXPECT_TRUE(interval->isFinal());
}

TEST_F(IntervalTest, ItemLivesWhileTheListenersOfItsIntervalRun) {
  SharedRequest other = boost::make_shared<Request>();
  const SharedInterval interval = other->addItem(1)->addInterval(0, 1, 9);
  other->setCompletion([&other](const SharedRequest&) { other.reset(); });
  bool there = false;
  interval->addListner([&](const SharedInterval& done) { there = done->item() != nullptr; });
  interval->finalize();
  EXPECT_TRUE(there);
  EXPECT_FALSE(interval->item()) << "and is gone after them";
}

// The item owns its open intervals, so dropping one ends nothing ...
TEST_F(IntervalTest, IntervalThatAProviderDropsStaysOpen) {
  { const SharedInterval dropped = item->addInterval(0, 1, 9); }
  EXPECT_EQ(item->openIntervals().size(), 1U);
  EXPECT_FALSE(item->isFinal());
}

// ... but one that somebody took out and lets go of lets the item complete.
TEST_F(IntervalTest, IntervalDestroyedUnfinishedLetsItsItemComplete) {
  int heard = 0;
  {
    SharedInterval part;
    {
      const SharedInterval whole = item->addInterval(0, 1, 9);
      whole->addListner([&](const SharedInterval& done) {
        ++heard;
        EXPECT_TRUE(done->failed()) << "so its data are not cached";
      });
      part = whole->split(1)[0];
      pushTimes(part, {1});
    }
    EXPECT_FALSE(item->isFinal());
  }
  EXPECT_TRUE(item->isFinal());
  EXPECT_EQ(heard, 1);
}

// ---- several archives

TEST_F(IntervalTest, PartsAskTheSameWithHandlesOfTheirOwn) {
  item->numValuesPerNode = 4;
  const SharedInterval whole = item->addInterval(-1, 10, 20);
  whole->setKind(Kind::newest);
  whole->setBounds({true, false});
  const std::vector<SharedInterval> parts = whole->split(3);
  ASSERT_EQ(parts.size(), 3U);
  for (std::uint32_t i = 0; i < 3; ++i) {
    const SharedInterval& part = parts[i];
    part->setHandle(i + 1);
    EXPECT_EQ(part->start(), 10);
    EXPECT_EQ(part->end(), 20);
    EXPECT_EQ(part->layer(), -1);
    EXPECT_EQ(part->cacheId(), 7);
    EXPECT_EQ(part->kind(), Kind::newest);
    EXPECT_TRUE(part->bounds().left);
    EXPECT_FALSE(part->bounds().right);
    EXPECT_EQ(part->wanted(), 1U);
    EXPECT_EQ(part->item(), item);
  }
  EXPECT_EQ(parts[0]->handle(), 1U);
  EXPECT_EQ(parts[2]->handle(), 3U);
  EXPECT_EQ(item->openIntervals(), (std::vector<SharedInterval>{whole}));
}

TEST_F(IntervalTest, IntervalIsFinalWhenTheLastPartIsAndItsValuesAreMerged) {
  const SharedInterval whole = item->addInterval(-1, 1, 90);
  const std::vector<SharedInterval> parts = whole->split(2);
  pushTimes(parts[1], {10, 30, 50});
  parts[1]->finalize();
  EXPECT_FALSE(whole->isFinal());
  EXPECT_EQ(item->valueCount(), 0U);
  pushTimes(parts[0], {20, 40});
  parts[0]->finalize();
  EXPECT_TRUE(whole->isFinal());
  EXPECT_EQ(timesOf(item), (Times{10, 20, 30, 40, 50}));
  EXPECT_EQ(timesOf(whole->buffer()), (Times{10, 20, 30, 40, 50}));
  EXPECT_TRUE(item->isFinal());
}

TEST_F(IntervalTest, WhatAnotherArchiveGaveTooIsDroppedOneForOne) {
  const std::vector<SharedInterval> parts = item->addInterval(-1, 1, 90)->split(2);
  push(parts[0], {{10, 1}, {10, 1}, {20, 2}, {20, kNan}});
  push(parts[1], {{10, 1}, {20, kNan}, {20, 3}});
  parts[0]->finalize();
  parts[1]->finalize();
  EXPECT_EQ(values(), (Values{{10, 1}, {10, 1}, {20, 2}, {20, kNan}, {20, 3}}));
}

// Each archive stops at the wanted number by itself: past it the merged values have holes.
TEST_F(IntervalTest, MergedValuesEndAtTheWantedNumber) {
  item->numValuesPerNode = 2;
  const SharedInterval whole = item->addInterval(-1, 1, 900);
  const std::vector<SharedInterval> parts = whole->split(2);
  pushTimes(parts[0], {1, 3, 5});
  pushTimes(parts[1], {100, 200, 300});
  parts[0]->finalize();
  parts[1]->finalize();
  EXPECT_EQ(timesOf(whole->buffer()), (Times{1, 3, 5}));
  EXPECT_EQ(whole->pushed(), whole->wanted());
}

TEST_F(IntervalTest, OfSeveralBoundsTheOnesNextToTheStretchAreGiven) {
  const SharedInterval whole = item->addInterval(-1, 10, 20);
  whole->setBounds({true, true});
  const std::vector<SharedInterval> parts = whole->split(2);
  pushTimes(parts[0], {5, 12, 30});
  pushTimes(parts[1], {8, 15, 25});
  parts[0]->finalize();
  parts[1]->finalize();
  EXPECT_EQ(timesOf(item), (Times{8, 12, 15, 25}));
}

TEST_F(IntervalTest, OneValueOfSeveralArchivesIsTheBestOfTheirs) {
  const SharedInterval whole = item->addTopInterval(-1, 1, 90);
  whole->setKind(Kind::newest);
  const std::vector<SharedInterval> parts = whole->split(2);
  push(parts[0], {{50, 2}});
  push(parts[1], {{50, 1}, {50, 2}});  // more than it was asked for
  parts[0]->finalize();
  parts[1]->finalize();
  EXPECT_EQ(values(), (Values{{50, 2}}));
}

TEST_F(IntervalTest, FailureOfAPartIsOneOfTheWhole) {
  const SharedInterval whole = item->addInterval(-1, 1, 90);
  const std::vector<SharedInterval> parts = whole->split(2);
  parts[0]->fail(0x80050000);
  parts[0]->finalize();
  pushTimes(parts[1], {5});
  parts[1]->finalize();
  EXPECT_TRUE(whole->failed());
  EXPECT_EQ(item->failure(), 0x80050000U);
  EXPECT_EQ(timesOf(item), (Times{5}));
}

TEST_F(IntervalTest, PartThatIsDroppedCountsAsDone) {
  const SharedInterval whole = item->addInterval(-1, 1, 90);
  {
    const std::vector<SharedInterval> parts = whole->split(2);
    pushTimes(parts[1], {5});
    parts[1]->finalize();
  }
  EXPECT_TRUE(whole->isFinal());
  EXPECT_TRUE(whole->failed());
  EXPECT_EQ(timesOf(item), (Times{5}));
  EXPECT_EQ(item->failure(), 0U);
}

TEST_F(IntervalTest, PartsAreFilledFromTheirThreadsAtOnce) {
  constexpr std::int64_t kEach = 2000;
  const std::vector<SharedInterval> parts = item->addInterval(-1, 1, 0)->split(3);
  std::vector<std::thread> archives;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    archives.emplace_back([&, i] {
      for (std::int64_t k = 0; k < kEach; ++k) {
        parts[i]->push(realPin(1 + 3 * k + static_cast<std::int64_t>(i), 0));
      }
      parts[i]->finalize();
    });
  }
  for (std::thread& archive : archives) archive.join();
  const Times times = timesOf(item);
  ASSERT_EQ(times.size(), static_cast<std::size_t>(3 * kEach));
  EXPECT_EQ(std::adjacent_find(times.begin(), times.end(), std::greater_equal<>()), times.end());
  EXPECT_TRUE(item->isFinal());
}

}  // namespace orva::archive
