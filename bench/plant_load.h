#pragma once

#include <cstdint>
#include <vector>

#include "share/ticks.h"

namespace orva::bench {

// What every benchmark stores or reads: items that give a sample a second each, all in the same
// second, item after item. A value is a sine of one hour's period plus normal noise of 0.1, rounded
// to two decimals; the quality is good. The same numbers in every run.
class PlantLoad {
 public:
  PlantLoad(std::uint32_t items, std::uint32_t samples);

  std::uint32_t items() const { return items_; }
  std::uint32_t samples() const { return samples_; }  // of each item
  std::uint64_t total() const { return std::uint64_t{items_} * samples_; }

  // Ticks of the n-th second.
  static std::int64_t time(std::uint64_t n) {
    return kFirstTime + static_cast<std::int64_t>(n) * kTicksPerSecond;
  }
  // The same as clients write it: milliseconds since 1970.
  static std::int64_t milliseconds(std::uint64_t n) {
    return time(n) / kTicksPerMillisecond - kUnixEpochMilliseconds;
  }
  double value(std::uint32_t item, std::uint32_t n) const {
    return values_[std::size_t{n} * items_ + item];
  }

 private:
  // 2024-05-17 08:00 UTC.
  static constexpr std::int64_t kFirstTime = kUnixEpochTicks + 1'715'932'800 * kTicksPerSecond;

  const std::uint32_t items_;
  const std::uint32_t samples_;
  std::vector<double> values_;  // second by second
};

}  // namespace orva::bench
