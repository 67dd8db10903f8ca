#include "bench/fleet/fleet_plant.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "host/host_time.h"
#include "share/ticks.h"

namespace orva::bench {
namespace {

constexpr char kRemotePrefix[] = "Plant/Area1/T";

// Mixes a number's bits, so that neighbours have nothing in common.
std::uint64_t mixed(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15U;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
  return x ^ (x >> 31);
}

}  // namespace

FleetPlant::FleetPlant(std::uint32_t controllers, std::uint32_t items, std::uint32_t delaySeconds)
    : controllers_(controllers),
      items_(items),
      delay_(delaySeconds * kTicksPerSecond),
      frozenAt_(kMaxTime),
      origin_((now() / kTicksPerSecond + 1) * kTicksPerSecond) {
  constexpr double kTurn = 6.283185307179586;
  for (std::size_t n = 0; n < kPeriodSeconds; ++n) {
    const double phase = static_cast<double>(n) / kPeriodSeconds;
    sine_[n] = static_cast<std::int16_t>(std::lround(100 * std::sin(kTurn * phase)));
  }
}

std::string FleetPlant::remotePath(std::uint32_t item) {
  return kRemotePrefix + std::to_string(item);
}

std::uint32_t FleetPlant::itemAt(const std::string& remotePath) const {
  constexpr std::size_t kPrefix = sizeof kRemotePrefix - 1;
  if (remotePath.compare(0, kPrefix, kRemotePrefix) != 0) return items_;
  const long item = std::strtol(remotePath.c_str() + kPrefix, nullptr, 10);
  return item < 0 || item >= static_cast<long>(items_) ? items_ : static_cast<std::uint32_t>(item);
}

archive::ItemKey FleetPlant::localKey(std::uint32_t number) const {
  char path[64];
  std::snprintf(path, sizeof path, "Fleet/C%03u/T%u", controllerOf(number), number % items_);
  return {std::int64_t{number} + 1, path};
}

std::int64_t FleetPlant::time(std::uint32_t controller, std::uint64_t n) const {
  const std::int64_t offsetMs = 1000 * std::int64_t{controller} / controllers_;
  return origin_ + offsetMs * kTicksPerMillisecond + static_cast<std::int64_t>(n) * kTicksPerSecond;
}

double FleetPlant::value(std::uint32_t number, std::uint64_t n) const {
  const auto noise = static_cast<int>(mixed((std::uint64_t{number} << 32) + n) % 41) - 20;
  return (sine_[(n + number) % kPeriodSeconds] + noise) / 100.0;
}

std::uint64_t FleetPlant::available(std::uint32_t controller) const {
  return firstFrom(controller, std::min(now(), frozenAt_.load()) + 1);
}

std::uint64_t FleetPlant::firstFrom(std::uint32_t controller, std::int64_t from) const {
  const std::int64_t first = time(controller, 0);
  if (from <= first) return 0;
  return static_cast<std::uint64_t>((from - first - 1) / kTicksPerSecond + 1);
}

std::int64_t FleetPlant::now() const { return getInt64FileTime() - delay_; }

}  // namespace orva::bench
