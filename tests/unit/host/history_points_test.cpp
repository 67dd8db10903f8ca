#include "orva_host/history_points.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace orva::host {
namespace {

HistoryPoint number(std::int64_t timeMs, double value, StatusCode quality = 0) {
  return {timeMs, std::to_string(value), value, quality};
}
HistoryPoint text(std::int64_t timeMs, const std::string& value) {
  return {timeMs, "\"" + value + "\"", std::nullopt, 0};
}
HistoryPoint gap(std::int64_t timeMs) { return {timeMs, "null", std::nullopt, 0}; }

std::vector<std::int64_t> timesOf(const std::vector<HistoryPoint>& points) {
  std::vector<std::int64_t> times;
  for (const HistoryPoint& point : points) times.push_back(point.timeMs);
  return times;
}
bool holds(const std::vector<HistoryPoint>& points, std::int64_t timeMs) {
  const auto times = timesOf(points);
  return std::count(times.begin(), times.end(), timeMs) == 1;
}

TEST(HistoryPointsTest, FewPointsAllStay) {
  HistoryPoints points(0, 1000, 5);
  for (int i = 0; i < 5; ++i) points.add(number(i * 10, 1));
  EXPECT_THAT(timesOf(points.take()), ::testing::ElementsAre(0, 10, 20, 30, 40));
}

TEST(HistoryPointsTest, ThereAreNeverMoreThanWanted) {
  for (const std::size_t most : {3U, 4U, 5U, 6U, 7U, 100U}) {
    for (const int count : {0, 1, 3, 4, 99, 5000}) {
      HistoryPoints points(0, 5000, most);
      for (int i = 0; i < count; ++i) {
        points.add(i % 7 == 6 ? gap(i) : number(i, std::sin(i)));
      }
      EXPECT_LE(points.take().size(), most) << most << " of " << count;
    }
  }
}

TEST(HistoryPointsTest, EveryPeakStaysAndTimesAscend) {
  HistoryPoints points(0, 100'000, 200);
  for (int i = 0; i < 100'000; ++i) {
    points.add(number(i, i % 10'000 == 777 ? 50 : i % 10'000 == 8888 ? -50 : std::sin(i)));
  }
  const auto kept = points.take();
  EXPECT_TRUE(std::is_sorted(kept.begin(), kept.end(),
                             [](const auto& a, const auto& b) { return a.timeMs < b.timeMs; }));
  for (int peak = 777; peak < 100'000; peak += 10'000) EXPECT_TRUE(holds(kept, peak)) << peak;
  for (int dip = 8888; dip < 100'000; dip += 10'000) EXPECT_TRUE(holds(kept, dip)) << dip;
}

TEST(HistoryPointsTest, TheMarkBeforeAGapStays) {
  HistoryPoints points(0, 100'000, 100);
  for (int i = 0; i < 40'000; i += 10) points.add(number(i, i % 17));
  points.add(gap(40'001));
  for (int i = 70'000; i < 100'000; i += 10) points.add(number(i, i % 17));
  EXPECT_TRUE(holds(points.take(), 40'001));
}

TEST(HistoryPointsTest, ABadValueIsNoPeakButAMark) {
  HistoryPoints points(0, 1000, 10);
  for (int i = 0; i < 1000; ++i) points.add(number(i, i % 10));
  points.add(number(1000, 9999, 0x80000000));
  const auto kept = points.take();
  const auto isGood9999 = [](const HistoryPoint& p) { return p.timeMs != 1000 && p.number > 100; };
  EXPECT_TRUE(std::none_of(kept.begin(), kept.end(), isGood9999));
  EXPECT_TRUE(holds(kept, 1000));
}

TEST(HistoryPointsTest, TextsKeepTheFirstAndTheLastOfAStretch) {
  HistoryPoints points(0, 100, 4);
  for (int i = 0; i < 100; ++i) points.add(text(i, std::to_string(i)));
  EXPECT_THAT(timesOf(points.take()), ::testing::ElementsAre(0, 49, 50, 99));
}

TEST(HistoryPointsTest, PointsOutsideTheRangeCountToItsEnds) {
  HistoryPoints points(1000, 2000, 4);
  for (const int time : {0, 500, 999, 1500, 2500, 9000}) points.add(number(time, time));
  const auto kept = points.take();
  EXPECT_LE(kept.size(), 4U);
  EXPECT_TRUE(holds(kept, 0));
  EXPECT_TRUE(holds(kept, 9000));
}

TEST(HistoryPointsTest, AnEmptyRangeIsNotDividedBy) {
  HistoryPoints points(5, 5, 3);
  for (int i = 0; i < 10; ++i) points.add(number(5, i));
  EXPECT_LE(points.take().size(), 3U);
}

}  // namespace
}  // namespace orva::host
