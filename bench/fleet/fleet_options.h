#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bench/fleet/plant_methods.h"

namespace orva::bench {

// What a run of the fleet simulation is asked for.
struct FleetOptions {
  std::vector<std::uint32_t> controllers{1, 10, 50, 100, 200};  // a run for each of them
  std::uint32_t items = 100;                                    // of each controller
  std::uint32_t liveSeconds = 10;
  std::uint32_t breakSeconds = 3600;
  std::uint32_t outageSeconds = 0;
  double loss = 0;  // of datagrams, in each direction: 0 to 1
  std::uint32_t delayMs = 0;
  std::uint32_t silent = 0;  // controllers that never answer
  Spoil spoil = Spoil::kNothing;
  bool inMemory = false;
  std::uint32_t writeBuffer = 0;    // samples; 0: the archive's default
  std::uint32_t writePeriodMs = 0;  // 0: the archive's default
  std::string json;                 // empty: none
};

constexpr std::uint32_t kMostControllers = 1000;
constexpr std::uint32_t kMostItems = 10'000;

// Nothing when the run may begin, else the exit code: what was to be said is printed.
std::optional<int> readFleetOptions(int count, const char* const* arguments, FleetOptions& out);

}  // namespace orva::bench
