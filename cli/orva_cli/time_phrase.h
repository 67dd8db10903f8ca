#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orva::cli {

// The zone in which times are shown, and read where they do not say theirs.
enum class Zone { kLocal, kUtc };

// A time as people write it, either a date and time or a distance from now:
//
//   now  -1h  -30m  -1d12h  2026-03-01  2026-03-01T08:00  2026-03-01T08:00:00.250Z
//   2026-03-01T08:00+01:00
//
// Units are s, m, h, d (24 hours) and w. Times are milliseconds since 1970.
class TimePhrase {
 public:
  // Nothing for every other text, and for a time that does not exist: one that a clock put forward
  // left out. Of a time that occurs twice, the C library chooses which is meant.
  static std::optional<TimePhrase> read(std::string_view text, Zone zone);

  std::int64_t at(std::int64_t nowMs) const { return isRelative_ ? nowMs + ms_ : ms_; }

 private:
  TimePhrase(bool isRelative, std::int64_t ms) : isRelative_(isRelative), ms_(ms) {}

  bool isRelative_;
  std::int64_t ms_;
};

// "2026-03-01T08:00:00.250+01:00", or with "Z". TimePhrase reads it.
std::string timeText(std::int64_t ms, Zone zone);

}  // namespace orva::cli
