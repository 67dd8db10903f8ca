#include "bench/plant_load.h"

#include <cmath>
#include <random>

namespace orva::bench {

PlantLoad::PlantLoad(std::uint32_t items, std::uint32_t samples)
    : items_(items), samples_(samples) {
  constexpr double kTurn = 6.283185307179586;
  constexpr double kPeriodSeconds = 3600;
  std::mt19937_64 random(20240517);
  std::normal_distribution<double> noise(0, 0.1);
  values_.reserve(std::size_t{items} * samples);
  for (std::uint32_t n = 0; n < samples; ++n) {
    for (std::uint32_t item = 0; item < items; ++item) {
      const double phase = n / kPeriodSeconds + static_cast<double>(item) / items;
      values_.push_back(std::round((std::sin(kTurn * phase) + noise(random)) * 100) / 100);
    }
  }
}

}  // namespace orva::bench
