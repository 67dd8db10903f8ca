#include "orva_store/amount_text.h"

#include <array>
#include <cstdio>

namespace orva::store {

std::string fixedText(double number, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, number);
  return text;
}

std::string bytesText(std::int64_t bytes) {
  constexpr std::array<const char*, 5> kUnits = {"B", "kB", "MB", "GB", "TB"};
  if (bytes < 1000) return std::to_string(bytes) + " B";
  auto number = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; number >= 999.95 && unit + 1 < kUnits.size(); ++unit) number /= 1000;
  return fixedText(number, 1) + " " + kUnits[unit];
}

std::string durationText(double seconds) {
  if (seconds < 120) return fixedText(seconds, 0) + " s";
  if (seconds < 7200) return fixedText(seconds / 60, 0) + " min";
  if (seconds < 172'800) return fixedText(seconds / 3600, 1) + " h";
  return fixedText(seconds / 86'400, 1) + " days";
}

}  // namespace orva::store
