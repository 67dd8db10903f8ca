#include "orva_host/time_text.h"

#include <gtest/gtest.h>

#include "share/ticks.h"

namespace orva::host {
namespace {

constexpr std::int64_t kDay = 24 * kTicksPerHour;

// -1 when the text is no time.
std::int64_t read(const std::string& text) {
  std::int64_t ticks = -1;
  readUtc(text, ticks);
  return ticks;
}

TEST(TimeTextTest, TimesAreReadToTheTick) {
  EXPECT_EQ(read("1601-01-01"), 0);
  EXPECT_EQ(read("1970-01-01T00:00:00Z"), kUnixEpochTicks);
  EXPECT_EQ(read("1970-01-01T01:02Z"), kUnixEpochTicks + kTicksPerHour + 2 * kTicksPerMinute);
  EXPECT_EQ(read("1970-01-02T00:00:03.5Z"), kUnixEpochTicks + kDay + 35'000'000);
  EXPECT_EQ(read("1970-01-01T23:59:59.9999999Z"), kUnixEpochTicks + kDay - 1);
  EXPECT_EQ(read("2023-11-14T22:13:20.000Z"), kUnixEpochTicks + 1'700'000'000 * kTicksPerSecond);
}

TEST(TimeTextTest, LeapDaysAreThoseOfTheCalendar) {
  EXPECT_EQ(read("2024-03-01") - read("2024-02-29"), kDay);
  EXPECT_EQ(read("2023-03-01") - read("2023-02-28"), kDay);
  EXPECT_EQ(read("2000-03-01") - read("2000-02-28"), 2 * kDay);
  EXPECT_EQ(read("1900-03-01") - read("1900-02-28"), kDay);
  EXPECT_EQ(read("2023-02-29"), -1);
  EXPECT_EQ(read("1900-02-29"), -1);
}

TEST(TimeTextTest, WhatIsNoTimeIsRefused) {
  for (const char* text : {"",
                           "2024",
                           "2024-05",
                           "24-05-17",
                           "2024-5-17",
                           "2024-00-17",
                           "2024-13-17",
                           "2024-05-00",
                           "2024-05-32",
                           "2024-04-31",
                           "2024-05-17T",
                           "2024-05-17Z",
                           "2024-05-17T08:09",
                           "2024-05-17T08Z",
                           "2024-05-17 08:09Z",
                           "2024-05-17T24:00Z",
                           "2024-05-17T08:60Z",
                           "2024-05-17T08:09:60Z",
                           "2024-05-17T08:09:10.Z",
                           "2024-05-17T08:09:10.12345678Z",
                           "2024-05-17T08:09:10Z ",
                           " 2024-05-17",
                           "2024-05-17T08:09:10+00:00",
                           "-024-05-17",
                           "2024-05-17T08:09:-1Z"}) {
    std::int64_t ticks = 7;
    EXPECT_FALSE(readUtc(text, ticks)) << text;
    EXPECT_EQ(ticks, 7) << text;
  }
}

TEST(TimeTextTest, WhatIsWrittenExactlyIsReadBack) {
  for (std::int64_t ticks = 0; ticks < 8000 * 365 * kDay; ticks += 97 * kDay + 12'345'678'901) {
    EXPECT_EQ(read(exactUtcText(ticks)), ticks) << exactUtcText(ticks);
  }
}

TEST(TimeTextTest, DigitsBeyondMillisecondsAreWrittenWhereTheySaySomething) {
  EXPECT_EQ(exactUtcText(kUnixEpochTicks), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(exactUtcText(kUnixEpochTicks + 10'000), "1970-01-01T00:00:00.001Z");
  EXPECT_EQ(exactUtcText(kUnixEpochTicks + 1), "1970-01-01T00:00:00.0000001Z");
  EXPECT_EQ(exactUtcText(-1), "1600-12-31T23:59:59.9999999Z");
}

}  // namespace
}  // namespace orva::host
