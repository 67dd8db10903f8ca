#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "orva_cli/time_phrase.h"

namespace orva::cli {
namespace {

constexpr std::int64_t kNow = 1'772'352'000'000;  // 2026-03-01T08:00:00Z
constexpr std::int64_t kHour = 3'600'000;

// Central European time with its summer, without need of the system's files.
class TimePhraseTest : public ::testing::Test {
 protected:
  TimePhraseTest() { setZone("CET-1CEST,M3.5.0,M10.5.0/3"); }
  ~TimePhraseTest() override { setZone("UTC0"); }

  static void setZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  static std::int64_t at(const char* text, Zone zone) {
    const std::optional<TimePhrase> phrase = TimePhrase::read(text, zone);
    EXPECT_TRUE(phrase) << text;
    return phrase ? phrase->at(kNow) : -1;
  }
};

TEST_F(TimePhraseTest, DistancesCountBackFromNow) {
  EXPECT_EQ(at("now", Zone::kLocal), kNow);
  EXPECT_EQ(at("-90s", Zone::kLocal), kNow - 90'000);
  EXPECT_EQ(at("-30m", Zone::kLocal), kNow - kHour / 2);
  EXPECT_EQ(at("-1h", Zone::kUtc), kNow - kHour);
  EXPECT_EQ(at("-1d12h", Zone::kLocal), kNow - 36 * kHour);
  EXPECT_EQ(at("-2w", Zone::kLocal), kNow - 14 * 24 * kHour);
}

TEST_F(TimePhraseTest, TimesWithoutAZoneAreOfTheZoneAskedFor) {
  EXPECT_EQ(at("2026-03-01T08:00", Zone::kUtc), kNow);
  EXPECT_EQ(at("2026-03-01T09:00", Zone::kLocal), kNow);
  EXPECT_EQ(at("2026-03-01 09:00", Zone::kLocal), kNow);
  EXPECT_EQ(at("2026-03-01", Zone::kUtc), kNow - 8 * kHour);
  EXPECT_EQ(at("2026-03-01", Zone::kLocal), kNow - 9 * kHour);
  EXPECT_EQ(at("2026-03-01T08:00:01.25", Zone::kUtc), kNow + 1250);
}

TEST_F(TimePhraseTest, AZoneInTheTextIsTheOneThatHolds) {
  for (const Zone zone : {Zone::kLocal, Zone::kUtc}) {
    EXPECT_EQ(at("2026-03-01T08:00Z", zone), kNow);
    EXPECT_EQ(at("2026-03-01T13:30+05:30", zone), kNow);
    EXPECT_EQ(at("2026-03-01T03:00:00.000-05:00", zone), kNow);
  }
}

TEST_F(TimePhraseTest, LocalTimesFollowTheClocksInSummer) {
  EXPECT_EQ(at("2026-07-01T10:00", Zone::kLocal), at("2026-07-01T08:00Z", Zone::kLocal));
  EXPECT_EQ(timeText(at("2026-07-01T08:00Z", Zone::kUtc), Zone::kLocal),
            "2026-07-01T10:00:00.000+02:00");
}

TEST_F(TimePhraseTest, ATimeThatClocksLeaveOutIsNone) {
  EXPECT_FALSE(TimePhrase::read("2026-03-29T02:30", Zone::kLocal));
  EXPECT_TRUE(TimePhrase::read("2026-03-29T02:30", Zone::kUtc));
}

TEST_F(TimePhraseTest, OtherTextsAreNoTimes) {
  for (const char* text : {"",
                           "-",
                           "1h",
                           "-1",
                           "-h",
                           "-1y",
                           "-1h ",
                           "-1h30",
                           "--1h",
                           "yesterday",
                           "2026",
                           "2026-13-01",
                           "2026-02-30",
                           "2026-03-01T",
                           "2026-03-01T24:00",
                           "2026-03-01T08:00+1",
                           "2026-03-01Z",
                           "2026-03-01T08:00Z+01:00",
                           "2026-03-01T08:00+01:00Z",
                           "2026-03-01T08:00+25:00",
                           "1969-12-31",
                           "-99999999999h",
                           "-9999999999w",
                           "-5300w"}) {
    EXPECT_FALSE(TimePhrase::read(text, Zone::kUtc)) << text;
  }
}

TEST_F(TimePhraseTest, ATimeShownIsReadBackAsTheSame) {
  setZone("<-0330>3:30");
  EXPECT_EQ(timeText(kNow + 7, Zone::kLocal), "2026-03-01T04:30:00.007-03:30");
  EXPECT_EQ(timeText(kNow + 7, Zone::kUtc), "2026-03-01T08:00:00.007Z");
  for (const Zone zone : {Zone::kLocal, Zone::kUtc}) {
    EXPECT_EQ(at(timeText(kNow + 7, zone).c_str(), Zone::kLocal), kNow + 7);
  }
}

}  // namespace
}  // namespace orva::cli
