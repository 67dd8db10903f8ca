#include "orva_cli/time_phrase.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "orva_host/time_text.h"
#include "share/ticks.h"

namespace orva::cli {
namespace {

constexpr std::int64_t kMinuteMs = 60'000;
constexpr std::int64_t kMostBackMs = 36'525LL * 24 * 60 * kMinuteMs;  // a hundred years

std::int64_t unitMs(char unit) {
  switch (unit) {
    case 's':
      return 1000;
    case 'm':
      return kMinuteMs;
    case 'h':
      return 60 * kMinuteMs;
    case 'd':
      return 24 * 60 * kMinuteMs;
    case 'w':
      return 7 * 24 * 60 * kMinuteMs;
    default:
      return 0;
  }
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// "1h30m": the sum of its parts.
bool readDistance(std::string_view text, std::int64_t& out) {
  if (text.empty()) return false;
  out = 0;
  while (!text.empty()) {
    std::int64_t number = 0;
    std::size_t digits = 0;
    for (; digits < text.size() && digits < 10 && isDigit(text[digits]); ++digits) {
      number = number * 10 + (text[digits] - '0');
    }
    const std::int64_t unit = digits > 0 && digits < text.size() ? unitMs(text[digits]) : 0;
    if (unit == 0 || number > kMostBackMs / unit) return false;
    out += number * unit;
    if (out > kMostBackMs) return false;
    text.remove_prefix(digits + 1);
  }
  return true;
}

// Takes "+01:00" or "-05:30" off the end of a time; false, and 0 minutes, where there is none.
bool takeOffset(std::string& text, std::int64_t& minutes) {
  minutes = 0;
  const std::size_t day = text.find('T');
  const std::size_t sign = day == std::string::npos ? day : text.find_first_of("+-", day);
  if (sign == std::string::npos) return false;
  const std::string_view offset = std::string_view(text).substr(sign);
  if (offset.size() != 6 || offset[3] != ':') return false;
  for (const std::size_t at : {1, 2, 4, 5}) {
    if (!isDigit(offset[at])) return false;
  }
  const auto two = [offset](std::size_t at) {
    return (offset[at] - '0') * 10 + offset[at + 1] - '0';
  };
  if (two(1) >= 24 || two(4) >= 60) return false;
  minutes = (two(1) * 60 + two(4)) * (offset[0] == '-' ? -1 : 1);
  text.erase(sign);
  return true;
}

// The moment at which clocks here show what a clock in UTC shows at `asUtcMs`.
bool fromLocal(std::int64_t asUtcMs, std::int64_t& out) {
  const auto asUtc = static_cast<std::time_t>(asUtcMs / 1000);
  std::tm shown{};
  if (gmtime_r(&asUtc, &shown) == nullptr) return false;
  std::tm found = shown;
  found.tm_isdst = -1;
  const std::time_t seconds = std::mktime(&found);
  // A time that does not exist comes back as another one.
  if (found.tm_hour != shown.tm_hour || found.tm_min != shown.tm_min) return false;
  out = static_cast<std::int64_t>(seconds) * 1000 + asUtcMs % 1000;
  return true;
}

bool readMoment(std::string text, Zone zone, std::int64_t& out) {
  if (text.size() > 10 && text[10] == ' ') text[10] = 'T';
  std::int64_t minutes = 0;
  const bool hasOffset = takeOffset(text, minutes);
  const bool hasTime = text.find('T') != std::string::npos;
  const bool hasZone = hasOffset || text.back() == 'Z';
  if (hasOffset && text.back() == 'Z') return false;
  if (hasTime && text.back() != 'Z') text += 'Z';
  std::int64_t ticks = 0;
  if (!host::readUtc(text, ticks)) return false;
  const std::int64_t ms = ticks / kTicksPerMillisecond - kUnixEpochMilliseconds;
  if (ms < 0) return false;
  if (!hasZone && zone == Zone::kLocal) return fromLocal(ms, out);
  out = ms - minutes * kMinuteMs;
  return true;
}

}  // namespace

std::optional<TimePhrase> TimePhrase::read(std::string_view text, Zone zone) {
  if (text.empty()) return std::nullopt;
  if (text == "now") return TimePhrase(true, 0);
  std::int64_t ms = 0;
  if (text.front() == '-') {
    if (!readDistance(text.substr(1), ms)) return std::nullopt;
    return TimePhrase(true, -ms);
  }
  if (!readMoment(std::string(text), zone, ms)) return std::nullopt;
  return TimePhrase(false, ms);
}

std::string timeText(std::int64_t ms, Zone zone) {
  const auto utc = [](std::int64_t at) {
    return host::utcText((at + kUnixEpochMilliseconds) * kTicksPerMillisecond);
  };
  if (zone == Zone::kUtc) return utc(ms);
  const auto seconds = static_cast<std::time_t>(ms / 1000);
  std::tm shown{};
  if (localtime_r(&seconds, &shown) == nullptr) return utc(ms);
  const long offset = shown.tm_gmtoff;
  std::string text = utc(ms + static_cast<std::int64_t>(offset) * 1000);
  text.pop_back();
  const auto minutes = static_cast<int>(std::labs(offset) / 60);
  char end[32];
  std::snprintf(end, sizeof end, "%c%02d:%02d", offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
  return text + end;
}

}  // namespace orva::cli
