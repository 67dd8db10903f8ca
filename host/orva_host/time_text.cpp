#include "orva_host/time_text.h"

#include <cstdio>

#include "host/host_time.h"
#include "share/ticks.h"

namespace orva::host {
namespace {

std::int64_t dividedDown(std::int64_t a, std::int64_t b) { return a / b - (a % b < 0 ? 1 : 0); }

struct Date {
  std::int64_t year;
  int month;
  int day;
};

constexpr std::int64_t kDaysOf400Years = 146'097;
// Years that begin in March end with the leap day: so many days from March to the year's end.
constexpr int kDaysFromMarch = 306;

// The Gregorian date of a count of days since 1601-01-01, a first day of 400 years.
Date dateOf(std::int64_t days) {
  days += kDaysFromMarch;
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

// The reverse.
std::int64_t daysTo(const Date& date) {
  const std::int64_t year = date.year - 1600 - (date.month <= 2 ? 1 : 0);
  const std::int64_t era = dividedDown(year, 400);
  const std::int64_t yearOfEra = year - era * 400;
  const int monthFromMarch = date.month > 2 ? date.month - 3 : date.month + 9;
  const int dayOfYear = (153 * monthFromMarch + 2) / 5 + date.day - 1;
  const std::int64_t dayOfEra = 365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * kDaysOf400Years + dayOfEra - kDaysFromMarch;
}

// Takes a text apart from its beginning.
class TextScan {
 public:
  explicit TextScan(std::string_view text) : rest_(text) {}

  bool atEnd() const { return rest_.empty(); }
  bool take(char c) {
    if (rest_.empty() || rest_.front() != c) return false;
    rest_.remove_prefix(1);
    return true;
  }
  // A number of exactly so many digits.
  bool number(int digits, int& out) {
    out = 0;
    for (; digits > 0; --digits) {
      if (!digit(out)) return false;
    }
    return true;
  }
  // The ticks of one to seven digits after a decimal point.
  bool fraction(int& ticks) {
    ticks = 0;
    int digits = 0;
    while (digits < 7 && digit(ticks)) ++digits;
    for (int n = digits; n < 7; ++n) ticks *= 10;
    return digits > 0;
  }

 private:
  bool digit(int& number) {
    if (rest_.empty() || rest_.front() < '0' || rest_.front() > '9') return false;
    number = number * 10 + (rest_.front() - '0');
    rest_.remove_prefix(1);
    return true;
  }

  std::string_view rest_;
};

bool takeDate(TextScan& scan, std::int64_t& days) {
  int year = 0;
  Date date{};
  if (!scan.number(4, year) || !scan.take('-') || !scan.number(2, date.month) || !scan.take('-') ||
      !scan.number(2, date.day)) {
    return false;
  }
  date.year = year;
  if (date.month < 1 || date.month > 12) return false;
  days = daysTo(date);
  // A day too many is one of another month.
  const Date same = dateOf(days);
  return same.month == date.month && same.day == date.day;
}

bool takeTimeOfDay(TextScan& scan, std::int64_t& ticks) {
  int hour = 0;
  int minute = 0;
  int second = 0;
  int fraction = 0;
  if (!scan.number(2, hour) || !scan.take(':') || !scan.number(2, minute)) return false;
  if (scan.take(':')) {
    if (!scan.number(2, second)) return false;
    if (scan.take('.') && !scan.fraction(fraction)) return false;
  }
  ticks = hour * kTicksPerHour + minute * kTicksPerMinute + second * kTicksPerSecond + fraction;
  return hour < 24 && minute < 60 && second < 60 && scan.take('Z');
}

}  // namespace

std::int64_t unixMilliseconds() {
  return getInt64FileTime() / kTicksPerMillisecond - kUnixEpochMilliseconds;
}

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

std::string exactUtcText(std::int64_t ticks) {
  std::string text = utcText(ticks);
  const auto rest =
      static_cast<int>(ticks - dividedDown(ticks, kTicksPerMillisecond) * kTicksPerMillisecond);
  if (rest == 0) return text;
  char digits[8];
  std::snprintf(digits, sizeof digits, "%04d", rest);
  return text.insert(text.size() - 1, digits);
}

bool readUtc(std::string_view text, std::int64_t& ticks) {
  TextScan scan(text);
  std::int64_t days = 0;
  std::int64_t inDay = 0;
  if (!takeDate(scan, days)) return false;
  if (!scan.atEnd() && (!scan.take('T') || !takeTimeOfDay(scan, inDay))) return false;
  if (!scan.atEnd()) return false;
  ticks = days * 24 * kTicksPerHour + inDay;
  return true;
}

}  // namespace orva::host
