#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/pin.h"

namespace orva::model {

// A sample as the plain list keeps it. Two samples are the same when time and value are: quality
// is not compared, and of one type NaN equals NaN.
struct Sample {
  std::int64_t time = 0;
  std::int64_t value = 0;

  bool operator==(const Sample& other) const { return time == other.time && value == other.value; }
  bool operator!=(const Sample& other) const { return !(*this == other); }
};

// Stands for a NaN.
constexpr std::int64_t kNotANumber = -1000;

// A new object each time, as when a provider reads it from its storage.
PinPtr makeSample(const Sample& sample, OpcUa_StatusCode quality);
Sample sampleOf(const Pin& pin);
std::vector<Sample> samplesOf(const PinList& pins);
std::string text(const Sample& sample);
std::string text(const std::vector<Sample>& samples);

// The service answered something else than the plain list.
class Difference : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace orva::model
