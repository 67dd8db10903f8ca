#include "orva_host/time_text.h"

#include <cstdio>

#include "share/ticks.h"

namespace orva::host {
namespace {

std::int64_t dividedDown(std::int64_t a, std::int64_t b) { return a / b - (a % b < 0 ? 1 : 0); }

struct Date {
  std::int64_t year;
  int month;
  int day;
};

// The Gregorian date of a count of days since 1601-01-01, a first day of 400 years.
Date dateOf(std::int64_t days) {
  constexpr std::int64_t kDaysOf400Years = 146'097;
  // Years that begin in March end with the leap day: 306 days from March to the year's end.
  days += 306;
  const std::int64_t era = dividedDown(days, kDaysOf400Years);
  const auto dayOfEra = static_cast<int>(days - era * kDaysOf400Years);
  const int yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
  const int dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const int monthFromMarch = (5 * dayOfYear + 2) / 153;
  Date date;
  date.day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
  date.month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
  date.year = 1600 + era * 400 + yearOfEra + (date.month <= 2 ? 1 : 0);
  return date;
}

}  // namespace

void utcText(std::int64_t ticks, char* out) {
  const std::int64_t milliseconds = dividedDown(ticks, kTicksPerMillisecond);
  const std::int64_t days = dividedDown(milliseconds, 86'400'000);
  const auto inDay = static_cast<int>(milliseconds - days * 86'400'000);
  const Date date = dateOf(days);
  std::snprintf(out, kUtcTextSize, "%04lld-%02d-%02dT%02d:%02d:%02d.%03dZ",
                static_cast<long long>(date.year), date.month, date.day, inDay / 3'600'000,
                inDay / 60'000 % 60, inDay / 1000 % 60, inDay % 1000);
}

std::string utcText(std::int64_t ticks) {
  char text[kUtcTextSize];
  utcText(ticks, text);
  return text;
}

}  // namespace orva::host
