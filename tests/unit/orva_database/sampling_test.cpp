#include "orva_database/sampling.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace orva::archive::sampling_test {
namespace {

constexpr std::int64_t kPeriod = 2'000'000;  // ticks, above the threshold of the streaming form
const double kNan = std::numeric_limits<double>::quiet_NaN();

PinPtr number(std::int64_t time, double value) {
  OpcUa_VariantHlp variant;
  variant.SetDouble(value);
  return makePin(time, variant);
}

PinPtr text(std::int64_t time, const std::string& value) {
  OpcUa_VariantHlp variant;
  variant.SetString(value);
  return makePin(time, variant);
}

std::vector<std::int64_t> times(const PinList& list) {
  std::vector<std::int64_t> result;
  for (const PinPtr& pin : list) result.push_back(pin->time);
  return result;
}

std::vector<std::int64_t> times(const std::vector<PinPtr>& pins) {
  std::vector<std::int64_t> result;
  for (const PinPtr& pin : pins) result.push_back(pin->time);
  return result;
}

using Times = std::vector<std::int64_t>;

std::vector<PinPtr> numbers(const std::vector<std::pair<std::int64_t, double>>& samples) {
  std::vector<PinPtr> pins;
  for (const auto& [time, value] : samples) pins.push_back(number(time, value));
  return pins;
}

// The times that a batch of samples is reduced to.
Times reduced(std::vector<PinPtr> pins, std::int64_t interval = kPeriod) {
  Sampling::sampl(pins, interval);
  return times(pins);
}

// A stream into an empty queue.
struct Stream {
  explicit Stream(std::int64_t interval = kPeriod) : sampling(interval, queue, queue.end()) {}

  Stream& push(const PinPtr& pin) {
    sampling.push(pin);
    return *this;
  }
  Stream& push(std::int64_t time, double value) { return push(number(time, value)); }
  Times flushed() {
    sampling.flush();
    return times(queue);
  }

  PinList queue;
  Sampling sampling;
};

// ---- the stream

TEST(SamplingTest, IntervalUpToATenthOfASecondPassesEverySampleOn) {
  Stream stream(1'000'000);
  stream.push(10, 1).push(11, 1).push(12, 1);
  EXPECT_EQ(times(stream.queue), Times({10, 11, 12}));
}

TEST(SamplingTest, IntervalJustAboveATenthOfASecondResamples) {
  Stream stream(1'000'001);
  stream.push(10, 1).push(11, 1).push(12, 1);
  EXPECT_EQ(stream.flushed(), Times({10}));
}

TEST(SamplingTest, FirstSampleOfAPeriodIsEmittedAtOnce) {
  Stream stream;
  stream.push(kPeriod + 5, 1);
  EXPECT_EQ(times(stream.queue), Times({kPeriod + 5}));
}

TEST(SamplingTest, SelectionOfAPeriodIsEmittedWhenTheNextOneBegins) {
  Stream stream;
  stream.push(0, 5).push(1, 9).push(2, 1).push(3, 6);
  EXPECT_EQ(times(stream.queue), Times({0}));
  stream.push(kPeriod, 5);
  EXPECT_EQ(times(stream.queue), Times({0, 1, 2, kPeriod}));
}

TEST(SamplingTest, PeriodEndsAtTheMultipleOfTheIntervalNotAfterItsLength) {
  Stream stream;
  stream.push(kPeriod - 1, 5).push(kPeriod, 5);
  EXPECT_EQ(times(stream.queue), Times({kPeriod - 1, kPeriod}));
}

TEST(SamplingTest, LastTickOfAPeriodBelongsToIt) {
  Stream stream;
  stream.push(0, 5).push(kPeriod - 1, 5);
  EXPECT_EQ(times(stream.queue), Times({0}));
}

TEST(SamplingTest, PeriodsBelowTimeZeroAreRoundedDown) {
  Stream stream;
  stream.push(-kPeriod, 5).push(-1, 5).push(0, 5).push(kPeriod - 1, 5);
  EXPECT_EQ(times(stream.queue), Times({-kPeriod, 0}));
}

TEST(SamplingTest, PeriodsReachTheEndsOfTime) {
  constexpr std::int64_t kFirst = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max();
  Stream stream;
  stream.push(kFirst, 1).push(kFirst + 1, 1).push(kLast - 1, 1).push(kLast, 1);
  EXPECT_EQ(stream.flushed(), Times({kFirst, kLast - 1}));
}

TEST(SamplingTest, FirstSampleCountsAsMinimumAndMaximum) {
  // Without that the 5 would become the maximum.
  Stream stream;
  stream.push(0, 10).push(1, 5).push(2, 1);
  EXPECT_EQ(stream.flushed(), Times({0, 2}));
}

TEST(SamplingTest, EqualValueReplacesNeitherMinimumNorMaximum) {
  Stream stream;
  stream.push(0, 5).push(1, 9).push(2, 9).push(3, 1).push(4, 1);
  EXPECT_EQ(stream.flushed(), Times({0, 1, 3}));
}

TEST(SamplingTest, FlushEmitsInAscendingTimeWhicheverExtremeCameFirst) {
  Stream low;
  low.push(0, 5).push(1, 1).push(2, 9);
  EXPECT_EQ(low.flushed(), Times({0, 1, 2}));
  Stream high;
  high.push(0, 5).push(1, 9).push(2, 1);
  EXPECT_EQ(high.flushed(), Times({0, 1, 2}));
}

TEST(SamplingTest, ExtremesOfOneTimeAreEmittedInOrderOfArrival) {
  Stream stream;
  stream.push(0, 5).push(1, 9).push(1, 1);
  stream.sampling.flush();
  ASSERT_EQ(stream.queue.size(), 3U);
  double last = 0;
  ASSERT_TRUE(stream.queue.back()->value.GetDouble(last));
  EXPECT_EQ(last, 1);
}

TEST(SamplingTest, FlushEmitsNothingTwice) {
  Stream stream;
  stream.push(0, 5).push(1, 9);
  stream.sampling.flush();
  EXPECT_EQ(stream.flushed(), Times({0, 1}));
}

TEST(SamplingTest, PeriodGoesOnAfterAFlush) {
  Stream stream;
  stream.push(0, 5).push(1, 9);
  stream.sampling.flush();
  stream.push(2, 8).push(3, 10);
  EXPECT_EQ(stream.flushed(), Times({0, 1, 3}));
}

TEST(SamplingTest, FlushWithoutASampleEmitsNothing) { EXPECT_EQ(Stream().flushed(), Times()); }

TEST(SamplingTest, EraseMakesTheNextSampleBeginAPeriod) {
  Stream stream;
  stream.push(0, 5).push(1, 9);
  stream.sampling.flush();
  stream.sampling.erase();
  stream.push(2, 8);
  EXPECT_EQ(stream.flushed(), Times({0, 1, 2}));
}

TEST(SamplingTest, EraseKeepsWhatWaitsToBeEmitted) {
  Stream stream;
  stream.push(0, 5).push(1, 9);
  stream.sampling.erase();
  EXPECT_EQ(stream.flushed(), Times({0, 1}));
}

TEST(SamplingTest, EraseLetsGoOfWhatWasEmitted) {
  const PinPtr pin = number(0, 5);
  Stream stream;
  stream.push(pin);
  stream.queue.clear();
  stream.sampling.erase();
  EXPECT_EQ(pin->use_count(), 1U);
}

TEST(SamplingTest, PushAppendsWhateverPositionItWasMadeWith) {
  PinList queue{number(1, 1), number(2, 2)};
  Sampling sampling(kPeriod, queue, queue.begin());
  sampling.push(number(3, 3));
  EXPECT_EQ(times(queue), Times({1, 2, 3}));
}

// ---- values that are no numbers

TEST(SamplingTest, NanIsNeitherMinimumNorMaximum) {
  Stream stream;
  stream.push(0, 5).push(1, kNan).push(2, 1);
  EXPECT_EQ(stream.flushed(), Times({0, 2}));
}

TEST(SamplingTest, NanAfterNanIsLeftOut) {
  Stream stream;
  stream.push(0, kNan).push(1, kNan).push(2, kNan);
  EXPECT_EQ(stream.flushed(), Times({0}));
}

TEST(SamplingTest, FirstNumberAfterANanIsMinimumAndMaximum) {
  Stream stream;
  stream.push(0, kNan).push(1, 5).push(2, 6);
  EXPECT_EQ(stream.flushed(), Times({0, 1, 2}));
  Stream constant;
  constant.push(0, kNan).push(1, 5).push(2, 5);
  EXPECT_EQ(constant.flushed(), Times({0, 1}));
}

TEST(SamplingTest, InfinitiesAreExtremes) {
  const double infinity = std::numeric_limits<double>::infinity();
  Stream stream;
  stream.push(0, 5).push(1, infinity).push(2, 1e300).push(3, -infinity);
  EXPECT_EQ(stream.flushed(), Times({0, 1, 3}));
}

TEST(SamplingTest, TextIsSelectedWhenItDiffersFromTheOneSelectedBefore) {
  Stream stream;
  stream.push(text(0, "a")).push(text(1, "a")).push(text(2, "b")).push(text(3, "b"));
  stream.push(text(4, "a"));
  EXPECT_EQ(stream.flushed(), Times({0, 2, 4}));
}

TEST(SamplingTest, TextIsEmittedInItsPlaceBetweenNumbers) {
  Stream stream;
  stream.push(0, 5).push(1, 9).push(text(2, "off")).push(3, 1);
  EXPECT_EQ(stream.flushed(), Times({0, 1, 2, 3}));
}

TEST(SamplingTest, EveryPeriodBeginsAnewWithTexts) {
  Stream stream;
  stream.push(text(0, "a")).push(text(kPeriod, "a")).push(text(kPeriod + 1, "b"));
  EXPECT_EQ(stream.flushed(), Times({0, kPeriod, kPeriod + 1}));
}

TEST(SamplingTest, TextThatIsANumberCountsAsOne) {
  Stream stream;
  stream.push(0, 5).push(text(1, "6")).push(text(2, "7")).push(text(3, "6.5"));
  EXPECT_EQ(stream.flushed(), Times({0, 2}));
}

// ---- insert

TEST(SamplingTest, InsertAppendsAtTheEnd) {
  PinList target{number(1, 1)};
  PinList samples{number(10, 5), number(11, 9), number(12, 7), number(13, 1)};
  Sampling sampling(kPeriod, target, target.end());
  sampling.insert(samples, kPeriod, target.end());
  EXPECT_EQ(times(target), Times({1, 10, 11, 13}));
  EXPECT_EQ(times(samples), Times({10, 11, 12, 13}));
}

TEST(SamplingTest, InsertPutsSamplesBeforeThePositionInOrder) {
  PinList target{number(1, 1), number(100, 1)};
  PinList samples{number(10, 5), number(11, 9), number(12, 7)};
  Sampling sampling(kPeriod, target, target.end());
  sampling.insert(samples, kPeriod, std::prev(target.end()));
  EXPECT_EQ(times(target), Times({1, 10, 11, 100}));
}

TEST(SamplingTest, InsertHoldsNoLastPeriodBack) {
  PinList target;
  PinList samples{number(0, 5), number(kPeriod, 5), number(kPeriod + 1, 9)};
  Sampling sampling(kPeriod, target, target.end());
  sampling.insert(samples, kPeriod, target.end());
  EXPECT_EQ(times(target), Times({0, kPeriod, kPeriod + 1}));
  sampling.flush();
  EXPECT_EQ(target.size(), 3U);
}

TEST(SamplingTest, InsertGoesByItsOwnInterval) {
  PinList target;
  PinList samples{number(0, 5), number(kPeriod, 5), number(2 * kPeriod, 5)};
  Sampling sampling(kPeriod, target, target.end());
  sampling.insert(samples, 2 * kPeriod, target.end());
  EXPECT_EQ(times(target), Times({0, 2 * kPeriod}));
}

TEST(SamplingTest, InsertLeavesTheStreamAlone) {
  Stream stream;
  stream.push(0, 5).push(1, 9);
  PinList samples{number(2, 1)};
  stream.sampling.insert(samples, kPeriod, stream.queue.end());
  EXPECT_EQ(stream.flushed(), Times({0, 2, 1}));
}

TEST(SamplingTest, InsertWorksWithAListFromAnArena) {
  std::pmr::monotonic_buffer_resource arena;
  PinList target(&arena);
  PinList samples{number(10, 5), number(11, 9)};
  Sampling sampling(kPeriod, target, target.end());
  sampling.insert(samples, kPeriod, target.end());
  EXPECT_EQ(times(target), Times({10, 11}));
}

// ---- the batch

TEST(SamplingTest, BatchOfTwoSamplesStaysAsItIs) {
  EXPECT_EQ(reduced(numbers({{0, 5}, {1, 5}})), Times({0, 1}));
  EXPECT_EQ(reduced(numbers({{0, 5}, {1, 5}, {2, 5}})), Times({0}));
}

TEST(SamplingTest, BatchStaysAsItIsUpToAThousandTicks) {
  EXPECT_EQ(reduced(numbers({{0, 5}, {1, 5}, {2, 5}}), 1000), Times({0, 1, 2}));
  EXPECT_EQ(reduced(numbers({{0, 5}, {1, 5}, {2, 5}}), 1001), Times({0}));
}

TEST(SamplingTest, BatchKeepsASpikeAndTheMinimumInTimeOrder) {
  EXPECT_EQ(reduced(numbers({{0, 5}, {1, 5}, {2, 90}, {3, 5}, {4, 1}, {5, 5}})), Times({2, 4}));
  EXPECT_EQ(reduced(numbers({{0, 5}, {1, 5}, {2, 1}, {3, 5}, {4, 90}, {5, 5}})), Times({2, 4}));
}

TEST(SamplingTest, BatchDoesNotKeepTheFirstOfAPeriodAsSuch) {
  EXPECT_EQ(reduced(numbers({{0, 5}, {1, 9}, {2, 1}})), Times({1, 2}));
}

TEST(SamplingTest, BatchKeepsAFirstSampleThatIsTheMaximum) {
  EXPECT_EQ(reduced(numbers({{0, 10}, {1, 5}, {2, 1}})), Times({0, 2}));
}

TEST(SamplingTest, BatchKeepsASampleThatIsBothExtremesOnce) {
  EXPECT_EQ(reduced(numbers({{0, 5}, {kPeriod, 5}, {2 * kPeriod, 5}})),
            Times({0, kPeriod, 2 * kPeriod}));
}

TEST(SamplingTest, BatchKeepsTheFirstOfEqualExtremes) {
  EXPECT_EQ(reduced(numbers({{0, 5}, {1, 9}, {2, 9}, {3, 1}, {4, 1}})), Times({1, 3}));
}

TEST(SamplingTest, BatchCutsAtTheMultiplesAtWhichTheStreamCuts) {
  EXPECT_EQ(reduced(numbers({{kPeriod - 1, 5}, {kPeriod, 5}, {kPeriod + 1, 5}})),
            Times({kPeriod - 1, kPeriod}));
  EXPECT_EQ(reduced(numbers({{-2, 5}, {-1, 5}, {0, 5}, {1, 5}})), Times({-2, 0}));
}

TEST(SamplingTest, BatchGivesEachPeriodItsOwnExtremes) {
  EXPECT_EQ(reduced(numbers({{0, 1}, {1, 5}, {2, 9}, {kPeriod, 3}, {kPeriod + 1, 2}})),
            Times({0, 2, kPeriod, kPeriod + 1}));
}

TEST(SamplingTest, BatchLeavesNanOutWhereThereIsANumber) {
  EXPECT_EQ(reduced(numbers({{0, kNan}, {1, 5}, {2, kNan}, {3, 6}})), Times({1, 3}));
  EXPECT_EQ(reduced(numbers({{0, 5}, {1, kNan}, {2, kNan}})), Times({0}));
}

TEST(SamplingTest, BatchKeepsOneNanOfAPeriodWithoutNumbers) {
  EXPECT_EQ(reduced(numbers({{0, kNan}, {1, kNan}, {2, kNan}})), Times({0}));
}

TEST(SamplingTest, BatchKeepsChangesOfText) {
  EXPECT_EQ(reduced({text(0, "a"), text(1, "a"), text(2, "b"), text(3, "b"), text(4, "a")}),
            Times({0, 2, 4}));
}

TEST(SamplingTest, BatchKeepsTextAndExtremesInTheirPlaces) {
  EXPECT_EQ(reduced({number(0, 5), text(1, "x"), number(2, 9), text(3, "x"), number(4, 1)}),
            Times({1, 2, 4}));
}

TEST(SamplingTest, BatchHandsOutTheSamplesThemselves) {
  std::vector<PinPtr> pins = numbers({{0, 5}, {1, 9}, {2, 1}, {3, 5}});
  const std::vector<PinPtr> before = pins;
  Sampling::sampl(pins, kPeriod);
  EXPECT_EQ(pins, std::vector<PinPtr>({before[1], before[2]}));
}

}  // namespace
}  // namespace orva::archive::sampling_test
