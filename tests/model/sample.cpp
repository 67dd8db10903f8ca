#include "model/sample.h"

#include <limits>

namespace orva::model {

PinPtr makeSample(const Sample& sample, OpcUa_StatusCode quality) {
  OpcUa_VariantHlp value;
  if (sample.value == kNotANumber) {
    value.SetDouble(std::numeric_limits<double>::quiet_NaN());
  } else {
    value.SetInt64(sample.value);
  }
  return makePin(sample.time, std::move(value), quality);
}

Sample sampleOf(const Pin& pin) {
  Sample sample{pin.time, kNotANumber};
  if (pin.value.GetType() == OpcUaType_Int64) sample.value = pin.value.Get().Value.Int64;
  return sample;
}

std::vector<Sample> samplesOf(const PinList& pins) {
  std::vector<Sample> samples;
  samples.reserve(pins.size());
  for (const PinPtr& pin : pins) samples.push_back(sampleOf(*pin));
  return samples;
}

std::string text(const Sample& sample) {
  return "(" + std::to_string(sample.time) + " " +
         (sample.value == kNotANumber ? "NaN" : std::to_string(sample.value)) + ")";
}

std::string text(const std::vector<Sample>& samples) {
  std::string all = "[";
  for (const Sample& sample : samples) all += text(sample);
  return all + "]";
}

}  // namespace orva::model
