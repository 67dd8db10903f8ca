#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <system_error>

#include "share/ticks.h"
#include "share/write_filter.h"

namespace orva::archive {

namespace {

constexpr std::size_t kTracedCharacters = 128;

// A finite decimal number and nothing else; a sign is allowed, and blanks before it. Not strtod(),
// which follows the host's locale.
bool numericText(const char* text, const char* end, double& out) {
  while (text != end && (*text == ' ' || *text == '\t')) ++text;
  if (text != end && *text == '+' && text + 1 != end && text[1] != '-') ++text;
  double number = 0;
  const auto [stopped, error] = std::from_chars(text, end, number);
  if (error != std::errc() || stopped != end || !std::isfinite(number)) return false;
  out = number;
  return true;
}

void readNumber(const json::Value& value, double& out) {
  if (value.IsNumber()) {
    out = value.GetDouble();
  } else if (value.IsString()) {
    numericText(value.GetString(), value.GetString() + value.GetStringLength(), out);
  }
}

void readBool(const json::Value& value, bool& out) {
  if (value.IsBool()) out = value.GetBool();
}

struct Date {
  std::int64_t year;
  std::int64_t month;
  std::int64_t day;
};

// The Gregorian date that many days after 1601-01-01. Eras of 400 years are all alike; they are
// counted from March 1600, so that a leap day is the last day of its year.
Date dateOf(std::int64_t days) {
  constexpr std::int64_t kEraDays = 146'097;
  days += 306;  // since 1600-03-01
  const std::int64_t era = (days >= 0 ? days : days - kEraDays + 1) / kEraDays;
  const std::int64_t dayOfEra = days - era * kEraDays;
  const std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
  const std::int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
  return {1600 + era * 400 + yearOfEra + (month <= 2 ? 1 : 0), month,
          dayOfYear - (153 * monthFromMarch + 2) / 5 + 1};
}

// UTC, to the millisecond.
std::string timeText(std::int64_t ticks) {
  constexpr std::int64_t kDay = 24 * kTicksPerHour;
  const std::int64_t days = ticks / kDay - (ticks % kDay < 0 ? 1 : 0);
  const std::int64_t rest = ticks % kDay < 0 ? ticks % kDay + kDay : ticks % kDay;
  const Date date = dateOf(days);
  const auto field = [](std::int64_t value) { return static_cast<short>(value); };
  char text[64];
  std::snprintf(text, sizeof text, "%04hd-%02hd-%02hd %02hd:%02hd:%02hd.%03hd", field(date.year),
                field(date.month), field(date.day), field(rest / kTicksPerHour),
                field(rest / kTicksPerMinute % 60), field(rest / kTicksPerSecond % 60),
                field(rest / kTicksPerMillisecond % 1000));
  return text;
}

void traceOldTime(const Pin& last, const Pin& sample) {
  OpcUa_Trace_Imp(kTraceError, "Pin::operator <<: (old time) lastTime=%s, time=%s, value=%s\n",
                  __FILE__, __LINE__, timeText(last.time).c_str(), timeText(sample.time).c_str(),
                  sample.value.ToText().substr(0, kTracedCharacters).c_str());
}

// `newer` is not before `older`. Saturates.
std::int64_t elapsed(std::int64_t older, std::int64_t newer) {
  std::int64_t difference = 0;
  return __builtin_sub_overflow(newer, older, &difference)
             ? std::numeric_limits<std::int64_t>::max()
             : difference;
}

// Whether two values differ by the dead band at least. Exactly one NaN counts as no number, so the
// change to NaN and the one back are written.
bool leavesDeadband(const OpcUa_VariantHlp& before, const OpcUa_VariantHlp& now, double deadband) {
  double a = 0;
  double b = 0;
  if (!before.GetDouble(a) || !now.GetDouble(b)) return true;
  if (std::isnan(a) != std::isnan(b)) return true;
  return std::fabs(a - b) >= deadband;
}

}  // namespace

void Filter::load(const json::Value& value) {
  if (!value.IsObject()) {
    json::traceFailedAssertion("IsObject()", __FILE__, __LINE__);
    return;
  }
  json::readInt64(json::member(value, "maxWritePeriod"), maxWritePeriod);
  json::readInt64(json::member(value, "minWritePeriod"), minWritePeriod);
  readNumber(json::member(value, "deadband"), deadband);
  readBool(json::member(value, "writeByChange"), writeByChange);
  readBool(json::member(value, "allValues"), allValues);
}

Filter::Rule Filter::rule(const PinPtr& prev, const PinPtr& cur) const {
  if (!prev) return Rule::first;
  if (cur->time < prev->time) {
    traceOldTime(*prev, *cur);
    return Rule::oldTime;
  }
  if (allValues) return Rule::allValues;
  const std::int64_t dt = elapsed(prev->time, cur->time);
  if (maxWritePeriod != 0 && dt > maxWritePeriod) return Rule::maxPeriod;
  if (!writeByChange) return Rule::withinMaxPeriod;
  if (minWritePeriod != 0 && dt < minWritePeriod) return Rule::minPeriod;
  if (prev->value.IsEqual(cur->value)) return Rule::equal;
  const OpcUa_Byte type = cur->value.GetType();
  if (type == OpcUaType_Boolean || type == OpcUaType_String) return Rule::change;
  if (deadband == 0.0) return Rule::change;
  return leavesDeadband(prev->value, cur->value, deadband) ? Rule::outsideDeadband
                                                           : Rule::insideDeadband;
}

}  // namespace orva::archive
